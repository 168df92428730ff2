/* Alarm logic (Part 5.2). */
#include "supervision/ThreadLED.h"

#include <string.h>

#include "daemon/shared.h"
#include "hardware/gpio_work.h"
#include "hardware/registers.h"
#include "hardware/runner.h"

enum { NTPTIME_LINE = 100, STAMP_COLUMN = 7, TIME_COLUMN = 31, LINE_NEEDED = 55 };

/* Captures the event time from ntptime's second line into Command_Out 117
 * (24 characters and the zero at 141) and 143 (18 characters), as Part 3.4's
 * ControlTime does. Part 5.2 failure handling leaves a failing ntptime open
 * ("copies whatever the buffer holds"); safe choice (GUIDE section 2, as in
 * Part 3.4 "Left to the implementer"): when ntptime cannot start, prints
 * fewer than two lines or a second line shorter than 55 characters, both
 * slots stay as they are, nothing is read beyond what it printed, and the
 * state still changes. */
static void capture_event_time(void)
{
    char line[NTPTIME_LINE];
    if (run_read_lines("ntptime", 2, 2, line, sizeof line) != 0 || strlen(line) < LINE_NEEDED)
        return;
    command_out_put(CO_STAMP, line + STAMP_COLUMN, CO_STAMP_LEN);
    char slot[CO_TIME_LEN + 1];
    memcpy(slot, line + TIME_COLUMN, CO_TIME_LEN);
    slot[CO_TIME_LEN] = '\0';
    command_out_put(CO_EVENT, slot, sizeof slot);
}

int ControlAlarm(void)
{
    int reference = ControlRefclock() || ControlRefPPS();
    if (reference && PinGetInput("176") != 0) {
        /* Free of alarm: release the latch (a flag: Part 5.2 "Left to the
         * implementer"; releasing a latch that is not held is harmless). */
        alarm_latch = 0;
        reg2_modify(1, 0, "r");
        uint8_t was_uptime = UptimeFlag;
        atomic_store(&Alarm, 0);
        if (was_uptime == 0) {
            capture_event_time();
            UptimeFlag = 1;
        }
        run_command("echo 0 > /sys/class/gpio/gpio76/value", "w");
        run_command("echo 1 > /sys/class/gpio/gpio77/value", "w");
        return 0;
    }
    /* In alarm: the first pass of an episode takes the latch and clears the
     * reference-valid bit; later passes leave the bit alone. */
    if (!alarm_latch) {
        alarm_latch = 1;
        reg2_modify(0, 1, "r");
    }
    uint8_t was_alarm = atomic_load(&Alarm);
    UptimeFlag = 0;
    if (was_alarm == 0) {
        capture_event_time();
        atomic_store(&Alarm, 1);
    }
    run_command("echo 1 > /sys/class/gpio/gpio76/value", "w");
    run_command("echo 0 > /sys/class/gpio/gpio77/value", "w");
    return 0;
}
