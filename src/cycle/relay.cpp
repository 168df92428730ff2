#include "cycle/relay.h"

#include "hardware/registers.h"

namespace zarvent {

namespace {
constexpr std::int64_t kDelaySeconds = 4; // pulsed once more than 4 s have passed
} // namespace

void RelayReset::pulse(unsigned bit)
{
    registers_.modifyRegister2(bit, 0, PipeMode::Write);
    registers_.modifyRegister2(0, bit, PipeMode::Write);
}

void RelayReset::Relay_Reset(std::int64_t nowSeconds)
{
    // A read that failed carries no flags; pending events keep their timers.
    const auto value = registers_.read(reg::kRead28, 5, 1);
    flags = static_cast<std::uint32_t>(value.value_or(0) & 3u);

    if ((flags & 1u) && over_1 != 1) {
        event1 = nowSeconds;
        over_1 = 1;
    }
    if ((flags & 2u) && over_2 != 2) {
        event2 = nowSeconds;
        over_2 = 2;
    }
    if (over_1 == 1) {
        now = nowSeconds;
        if (now - event1 > kDelaySeconds) {
            event1 = 0;
            over_1 = 0;
            pulse(2);
        }
    }
    if (over_2 == 2) {
        now = nowSeconds;
        if (now - event2 > kDelaySeconds) {
            event2 = 0;
            over_2 = 0;
            pulse(4);
        }
    }
}

} // namespace zarvent
