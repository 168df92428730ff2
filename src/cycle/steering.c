/* Oscillator steering (Part 3.2). */
#include "cycle/ThreadINT.h"

void DAC_DEFAULTS(void)
{
    /* Part 3.2: built later. */
}

void Calculate_offset(void)
{
    /* Part 3.2: built later. */
}
