/* The daemon's entry point (Part 1.1): no arguments, no environment. */
#include "daemon/startup.h"
#include "platform/platform.h"

int main(void)
{
    CreateRAMDisk();
    CreateThreads();
    /* Part 1.1 "Left to the implementer": the main thread never returns
     * (that would end the process) and blocks without using the processor. */
    plat_block_forever();
    return 0;
}
