/* Client-activity indicator (Part 3.5). */
#include "cycle/ThreadINT.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

#define REG26_READ_CMD "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define LINE70_OFF "echo 0 > /sys/class/gpio/gpio70/value"
#define LINE71_OFF "echo 0 > /sys/class/gpio/gpio71/value"
#define LINE71_ON "echo 1 > /sys/class/gpio/gpio71/value"

enum { FLASH_US = 300 };

int Service(void)
{
    run_command(LINE70_OFF, "w");
    run_command(LINE71_OFF, "w");
    return 0;
}

int ReadNtpCli(void)
{
    long low = 0;
    /* Only the first data byte, the low byte, is parsed: strtol from column
     * 6 stops at the blank. Part 3.5 "Left to the implementer": a read that
     * cannot be started or prints fewer than five lines counts as 0, so the
     * indicator stays dark. */
    if (reg_read_byte(REG26_READ_CMD, 5, &low) != 0)
        low = 0;
    if (low != 0) {
        run_command(LINE70_OFF, "w");
        run_command(LINE71_ON, "w");
        plat_usleep(FLASH_US);
    }
    run_command(LINE70_OFF, "w");
    run_command(LINE71_OFF, "w");
    return 0;
}
