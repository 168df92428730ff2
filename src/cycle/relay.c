/* Relay reset (Part 3.3). */
#include "cycle/ThreadINT.h"

int Relay_Reset(void)
{
    /* Part 3.3: built later. */
    return 0;
}
