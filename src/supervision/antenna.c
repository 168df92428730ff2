/* Antenna monitor (Part 5.3). */
#include "supervision/ThreadLED.h"

#include <stdint.h>

#include "daemon/shared.h"
#include "hardware/gpio_work.h"
#include "hardware/runner.h"
#include "platform/platform.h"

enum { HOLD_OFF_SECONDS = 4 };

int ControlAntenna(void)
{
    int l86 = PinGetInput("86");
    int l87 = PinGetInput("87");
    int l85 = PinGetInput("85");
    command_out_set_byte(CO_ANTENNA,
                         (unsigned char)(((l85 & 1) << 2) | ((l87 & 1) << 1) | (l86 & 1)));

    l86 = PinGetInput("86");
    l87 = PinGetInput("87");
    l85 = PinGetInput("85");
    if (l86 && l87 && l85) {
        run_command("echo 0 > /sys/class/gpio/gpio74/value", "w");
        run_command("echo 1 > /sys/class/gpio/gpio75/value", "w");
    } else {
        run_command("echo 1 > /sys/class/gpio/gpio74/value", "w");
        run_command("echo 0 > /sys/class/gpio/gpio75/value", "w");
    }

    if (PinGetInput("87") != 0)
        return 0; /* no short: over, event and line 85 stay as they are */

    PinSetOutput("85", 0);
    if (over == 0) {
        event = plat_time();
        over = 1;
        return 0;
    }
    now_en = plat_time();
    /* The difference in signed 32-bit seconds, as the Part takes it. */
    if ((int32_t)(now_en - event) > HOLD_OFF_SECONDS) {
        over = 0;
        PinSetOutput("85", 1);
    }
    return 0;
}
