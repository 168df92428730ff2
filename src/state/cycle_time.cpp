#include "state/cycle_time.h"

namespace zarvent {

std::int64_t cycleSecond(std::int64_t realtimeNs)
{
    constexpr std::int64_t kSecond = 1'000'000'000;
    return (realtimeNs + kSecond / 2) / kSecond;
}

} // namespace zarvent
