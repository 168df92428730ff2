/* Status page writer (Part 4.3). */
#include "statistics/Statistic.h"

int FileWrite(void)
{
    /* Part 4.3: built later. */
    return 0;
}
