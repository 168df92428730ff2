/* FPGA load and readiness check (Part 6.1). */
#include "fpga/ThreadFPGA.h"

#include <string.h>

#include "daemon/shared.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

enum { ANSWER_BUFFER = 200, ANSWER_COMPARE = 10 };

/* One write-and-compare attempt: 1 when the fifth line of the register-1
 * write's output is "AA AA A5" and exactly one more character. */
static int fpga_answers(void)
{
    int control = Read_Control();
    if (control < 0)
        return 0; /* Part 2.2: a value that did not come from the register is not written */
    char cmd[REG_LINE];
    snprintf(cmd, sizeof cmd, "./spiWrite -m 1 -l 3 -d 1 1 %d 0", control);
    char line[ANSWER_BUFFER];
    /* Part 6.1 "Left to the implementer": fewer than five lines, or a write
     * that cannot start, counts as a failed attempt. */
    if (run_read_lines(cmd, 5, 5, line, sizeof line) != 0)
        return 0;
    size_t len = strnlen(line, ANSWER_COMPARE);
    if (len == 0)
        return 0;
    /* The line less its last character, within its first 10 characters. */
    return len - 1 == strlen(FPGA_A5) && strncmp(line, FPGA_A5, len - 1) == 0;
}

void BurnFPGA(void)
{
    if (cfgOk == 0)
        run_command("./wrFPGA --file Version_1.rbf", "r"); /* goes on if it cannot start */
    while (cfgOk != 1) {
        cfgOk = fpga_answers();
        if (cfgOk == 1)
            return;
        plat_sleep(1);
    }
}

void SrvFPGA(void)
{
    BurnFPGA();
}
