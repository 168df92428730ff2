/* Offset readout and synchronisation enable (Part 3.6). */
#include "cycle/ThreadINT.h"

int32_t ControlOffset(void)
{
    /* Part 3.6: built later. */
    return 0;
}

int Nav_Parse(void)
{
    /* Part 3.6: built later. */
    return 0;
}
