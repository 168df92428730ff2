/* Pulse-triggered cycle driver (Part 3.1). */
#include "cycle/ThreadINT.h"

#include <stddef.h>

#include "daemon/shared.h"
#include "hardware/dac.h"
#include "hardware/gpio_work.h"
#include "platform/platform.h"
#include "statistics/Statistic.h"

/* Part 3.1 "Left to the implementer": the first DAC words must not be sent
 * before the supervision thread has configured lines 96, 106 and 118. The
 * set-up waits for it; if it has not happened within this time (the thread
 * did not start), the lines are configured here the same way. Configuring
 * them in both threads unconditionally would let the supervision set-up
 * drive the select line low in the middle of a word. */
enum { DAC_WAIT_STEP_US = 10000, DAC_WAIT_STEPS = 1000 };

static void wait_for_dac_lines(void)
{
    for (int i = 0; i < DAC_WAIT_STEPS; i++) {
        if (atomic_load(&dac_lines_ready))
            return;
        plat_usleep(DAC_WAIT_STEP_US);
    }
    PinAddToWorkspace("96");
    PinSetDirectionOut("96");
    PinSetOutput("96", 0);
    PinAddToWorkspace("106");
    PinSetDirectionOut("106");
    PinSetOutput("106", 1);
    PinAddToWorkspace("118");
    PinSetDirectionOut("118");
    PinSetOutput("118", 0);
}

void cycle_setup(void)
{
    PinAddToWorkspace("19");
    PinSetDirectionIn("19");
    GpioSetEdge(19, "rising"); /* set, but the thread polls the level */
    ControlTime(Command_Out + CO_EVENT);
    wait_for_dac_lines();
    DAC_DEFAULTS();
}

void cycle_run(void)
{
    Stat_read();
    Relay_Reset();
    Service();
    ReadNtpCli();
    ControlTime(Command_Out + CO_NOW);
    if (Sync_En)
        Send_Time();
    ControlOffset();
    Nav_Parse();
    FileWrite();
    /* Sync_En is read again so that step 8's decision counts in this cycle. */
    if (Sync_En) {
        SPIWriteInt(4, 2048);
        Calculate_offset();
    }
}

int cycle_poll(void)
{
    if (PinGetInput("19") && first_f) {
        cycle_run();
        first_f = 0;
        return 1;
    }
    if (PinGetInput("19") == 0)
        first_f = 1;
    return 0;
}

void *ThreadSrvINT(void *arg)
{
    (void)arg;
    cycle_setup();
    for (;;) {
        cycle_poll();
        plat_usleep(500);
    }
    return NULL;
}
