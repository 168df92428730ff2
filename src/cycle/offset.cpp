#include "cycle/offset.h"

#include <string>

#include "daemon/shared.h"
#include "hardware/parsers.h"
#include "hardware/registers.h"
#include "hardware/runner.h"

namespace zarvent {

namespace {

constexpr std::uint32_t kNoMeasurementAbove = 4277071597u; // 0xFEEEEEED
constexpr std::int32_t kHalfSecondNs = 500000000;
constexpr std::int32_t kSecondNs = 1000000000;
constexpr std::size_t kOffsetText = 8;
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

std::int32_t OffsetReadout::ControlOffset()
{
    // A read that failed is taken as no measurement, offset 0: the steering
    // then sees no error and its integral does not grow from a value that did
    // not come from the FPGA.
    const auto raw = registers_.read(reg::kRead14, 6, 4);
    const std::int32_t offset = raw ? foldPhase(static_cast<std::uint32_t>(*raw)) : 0;

    std::string text = std::to_string(offset);
    if (text.size() > kOffsetText)
        text.resize(kOffsetText); // the record holds 8 characters: -500000000 reads -5000000
    text.push_back('\0');
    shared_.put(co::kOffset, text);

    if (offset > Max)
        Max = offset;
    if (offset < Min)
        Min = offset;
    ++n;
    if (n >= kJitterBlock) {
        shared_.Jitter = wrap32(static_cast<std::uint32_t>(Max) - static_cast<std::uint32_t>(Min));
        Max = offset;
        Min = offset;
        n = 0;
    }
    return offset;
}

void OffsetReadout::writeSyncBit(bool set)
{
    // Register 1 takes register 2's value with bit 0 set or cleared; a read
    // of register 2 that failed is not written anywhere.
    const auto control = registers_.Read_Control();
    if (!control)
        return;
    registers_.write(1, set ? (*control | 1u) : (*control & ~1u), PipeMode::Read);
}

void OffsetReadout::Nav_Parse()
{
    const CommandLines out = runner_.readLines("ntpq -c clockvar", 3);
    if (!out.started)
        return; // ntpq cannot be started: nothing changes
    // Fewer than three lines, or a third line without the receiver's RMC
    // sentence, is a cycle without valid data.
    if (out.count < 3 || !rmcStatusValid(out.last)) {
        shared_.Sync_En = 0;
        sync_count = 0;
        writeSyncBit(false);
        return;
    }
    if (++sync_count >= kValidCycles) {
        shared_.Sync_En = 1;
        sync_count = 0;
        writeSyncBit(true);
    }
}

} // namespace zarvent
