/* Supervision loop and reference indication (Part 5.1). */
#include "supervision/ThreadLED.h"

#include <stddef.h>

#include "platform/platform.h"

void *ThreadSrvLED(void *arg)
{
    (void)arg;
    /* Part 5.1: built later. */
    for (;;)
        plat_sleep(3);
    return NULL;
}
