#include "cycle/offset.h"

#include "hardware/registers.h"
#include "ntp/ntp_queries.h"
#include "state/shared_state.h"

namespace zarvent {

namespace {

constexpr std::uint32_t kNoMeasurementAbove = 4277071597u; // 0xFEEEEEED
constexpr std::int32_t kHalfSecondNs = 500000000;
constexpr std::int32_t kSecondNs = 1000000000;
constexpr std::int32_t kJitterBlock = 128;
constexpr std::uint32_t kValidCycles = 60;

// What signed 32-bit arithmetic gives for u, without the undefined behaviour
// of a signed overflow.
std::int32_t wrap32(std::uint32_t u)
{
    return static_cast<std::int32_t>(u);
}

} // namespace

std::int32_t foldPhase(std::uint32_t raw)
{
    if (raw > kNoMeasurementAbove)
        return 0;
    // A working FPGA gives fewer than 100000000 ticks (one second); larger
    // values follow 32-bit arithmetic: the product and the negation wrap as
    // two's complement, which unsigned arithmetic does without overflow.
    const std::uint32_t xu = raw * 10u;
    const std::int32_t x = wrap32(xu);
    if (x > kHalfSecondNs)
        return kSecondNs - x;
    return wrap32(0u - xu);
}

std::int32_t OffsetReadout::readOffset()
{
    // A read that failed is taken as no measurement, offset 0: the steering
    // then sees no error and its integral does not grow from a value that did
    // not come from the FPGA.
    const auto raw = registers_.readPhase();
    const std::int32_t offset = raw ? foldPhase(*raw) : 0;
    if (offset > blockMax_)
        blockMax_ = offset;
    if (offset < blockMin_)
        blockMin_ = offset;
    ++blockCycles_;
    if (blockCycles_ >= kJitterBlock) {
        shared_.jitterNs =
            wrap32(static_cast<std::uint32_t>(blockMax_) - static_cast<std::uint32_t>(blockMin_));
        blockMax_ = offset;
        blockMin_ = offset;
        blockCycles_ = 0;
    }
    return offset;
}

void OffsetReadout::qualifyReceiver()
{
    switch (readReceiverStatus(runner_)) {
    case ReceiverStatus::Unknown:
        return; // ntpq cannot be started: nothing changes
    case ReceiverStatus::Invalid:
        shared_.steering = false;
        validCycles_ = 0;
        registers_.copyControlToSync(false, PipeMode::Read);
        return;
    case ReceiverStatus::Valid:
        if (++validCycles_ >= kValidCycles) {
            shared_.steering = true;
            validCycles_ = 0;
            registers_.copyControlToSync(true, PipeMode::Read);
        }
        return;
    }
}

} // namespace zarvent
