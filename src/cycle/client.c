/* Client-activity indicator (Part 3.5). */
#include "cycle/ThreadINT.h"

int Service(void)
{
    /* Part 3.5: built later. */
    return 0;
}

int ReadNtpCli(void)
{
    /* Part 3.5: built later. */
    return 0;
}
