/* Start-up, RAM disk and threads (Part 1.1). */
#include "daemon/startup.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "fpga/ThreadFPGA.h"
#include "hardware/runner.h"
#include "platform/platform.h"
#include "supervision/ThreadLED.h"

void CreateRAMDisk(void)
{
    /* Every command is run and closed at once; output and exit status are
     * never looked at, so a failing step does not stop the next one. */
    run_command("mkfs -q /dev/ram1 8192", "r");
    run_command("mkdir -p /ramcache", "r");
    run_command("mount /dev/ram1 /ramcache", "r");
    run_command("df -h | grep ramcache", "r");
    run_command("mkdir /ramcache/ntp", "r");
    run_command("mkdir /ramcache/zarvent", "r");

    /* Step 7: an empty drift file; skipped when it cannot be created. */
    FILE *drift = plat_fopen("/ramcache/zarvent/ntp.drift", "w");
    if (drift != NULL)
        fclose(drift);

    run_command("/sbin/agetty -h 115200 ttyO1 vt100 &", "r");

    memset(&Stat_Out, 0, sizeof Stat_Out);

    run_command("/usr/bin/mversion", "r");
    run_command("touch /ramcache/zarvent/ptp_data_0000_00_01;"
                "touch /ramcache/zarvent/ptp_data_0000_00_02;"
                "touch /ramcache/zarvent/ptp_data_0000_00_03",
                "w");

    /* Step 12: timeinfo is set before any thread starts; the start-time
     * marker is named from this local time. */
    timeinfo_refresh(plat_time());
    struct tm t;
    timeinfo_get(&t);
    char cmd[128];
    snprintf(cmd, sizeof cmd, "touch /ramcache/zarvent/%02d_%02d_%d-%02d-%02d.time", t.tm_hour,
             t.tm_min, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
    run_command(cmd, "w");
}

void CreateThreads(void)
{
    /* Results are not checked: a failed start does not stop the others. */
    plat_thread_start(&threadFPGA, ThreadSrvFPGA);
    plat_thread_start(&threadLED, ThreadSrvLED);
    plat_thread_start(&threadINT, ThreadSrvINT);
}
