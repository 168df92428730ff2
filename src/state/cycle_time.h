// The second a cycle belongs to, made once at the top of each cycle and
// handed to the steps that need it: the counters' slots, the page, the chart
// point, the relay's delay.
#pragma once

#include <cstdint>
#include <ctime>

namespace zarvent {

struct CycleTime {
    std::int64_t unixSecond = 0;
    std::tm local{}; // the local time of unixSecond in the zone in force
};

// The cycle's second: the pulse marks the top of the second, so the realtime
// clock read during the cycle is rounded to the nearest second. Read at full
// resolution, it never shows the previous second a tick after the boundary,
// as the kernel's coarse clock behind time() can: two cycles never share one
// second's slots and no slot is skipped.
std::int64_t cycleSecond(std::int64_t realtimeNs);

} // namespace zarvent
