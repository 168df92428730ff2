#include "cycle/offset.h"

#include <string>

#include "hardware/registers.h"

namespace zarvent {

namespace {

constexpr std::uint32_t kNoMeasurementAbove = 4277071597u; // 0xFEEEEEED
constexpr std::int32_t kHalfSecondNs = 500000000;
constexpr std::int32_t kSecondNs = 1000000000;
constexpr std::int32_t kJitterBlock = 128;

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

std::int32_t offsetAsShown(std::int32_t offsetNs)
{
    std::string text = std::to_string(offsetNs);
    if (text.size() <= kOffsetTextLength)
        return offsetNs;
    text.resize(kOffsetTextLength);
    return static_cast<std::int32_t>(std::stol(text));
}

OffsetReading OffsetReadout::readOffset()
{
    // A read that failed is taken as no measurement, offset 0: the steering
    // then sees no error and its integral does not grow from a value that did
    // not come from the FPGA.
    const auto raw = registers_.readPhase();
    OffsetReading reading;
    reading.offsetNs = raw ? foldPhase(*raw) : 0;
    reading.measured = raw && *raw <= kNoMeasurementAbove;
    if (reading.offsetNs > blockMax_)
        blockMax_ = reading.offsetNs;
    if (reading.offsetNs < blockMin_)
        blockMin_ = reading.offsetNs;
    ++blockCycles_;
    if (blockCycles_ >= kJitterBlock) {
        reading.blockJitterNs =
            wrap32(static_cast<std::uint32_t>(blockMax_) - static_cast<std::uint32_t>(blockMin_));
        blockMax_ = reading.offsetNs;
        blockMin_ = reading.offsetNs;
        blockCycles_ = 0;
    }
    return reading;
}

} // namespace zarvent
