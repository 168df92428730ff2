/* FPGA thread (Part 6.1). */
#include "fpga/ThreadFPGA.h"

#include <stddef.h>

#include "hardware/gpio_work.h"
#include "platform/platform.h"

int InitFPGA(void)
{
    PinAddToWorkspace("182");
    PinAddToWorkspace("13");
    PinSetDirectionIn("182");
    return PinSetDirectionIn("13");
}

void *ThreadSrvFPGA(void *arg)
{
    (void)arg;
    InitFPGA();
    for (;;) {
        SrvFPGA();
        plat_sleep(2);
    }
    return NULL;
}
