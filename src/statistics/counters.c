/* Packet counters (Part 4.2). */
#include "statistics/Statistic.h"

#include "daemon/shared.h"
#include "platform/platform.h"

void Stat_read(void)
{
    /* Part 4.2 is built later; the refresh of timeinfo is already needed. */
    timeinfo_refresh(plat_time());
}
