/* SPI capture transfer and stat file (Part 4.1). */
#include "statistics/Statistic.h"

#include <stdio.h>
#include <stdlib.h>

void Stat_capture(void)
{
    /* Part 4.1: built later. */
}

void pabort(const char *message)
{
    perror(message);
    abort();
}
