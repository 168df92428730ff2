#include "cycle/relay.h"

#include "hardware/board_map.h"
#include "hardware/registers.h"

namespace zarvent {

namespace {
constexpr std::int64_t kDelaySeconds = 4; // pulsed once more than 4 s have passed
} // namespace

void RelayReset::pulse(unsigned bit)
{
    inFlight_ |= bit;
    registers_.modifyControl(bit, 0, PipeMode::Write);
    // A clear that could not be written (the register not read, the tool
    // cut short by a stop) leaves the bit in flight.
    if (registers_.modifyControl(0, bit, PipeMode::Write))
        inFlight_ &= ~bit;
}

void RelayReset::expire(PendingEvent &event, unsigned bit, std::int64_t nowSeconds)
{
    if (event.pending && nowSeconds - event.since > kDelaySeconds) {
        event = {};
        pulse(bit);
    }
}

void RelayReset::acknowledge(std::int64_t nowSeconds)
{
    // A read that failed carries no flags; pending events keep their timers.
    // Both flags are looked at before either bit is pulsed.
    const unsigned flags = registers_.readRelayEvents().value_or(0);
    if ((flags & 1u) != 0 && !first_.pending)
        first_ = {true, nowSeconds};
    if ((flags & 2u) != 0 && !second_.pending)
        second_ = {true, nowSeconds};
    expire(first_, fpga::kRelayOneBit, nowSeconds);
    expire(second_, fpga::kRelayTwoBit, nowSeconds);
}

} // namespace zarvent
