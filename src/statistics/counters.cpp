#include "statistics/counters.h"

#include "hardware/board_map.h"
#include "hardware/parsers.h"
#include "hardware/registers.h"
#include "platform/files.h"
#include "platform/platform.h"
#include "state/cycle_time.h"
#include "statistics/capture.h"

namespace zarvent {

namespace {
constexpr std::size_t kSlotsPerDay = 1440;
constexpr std::uint64_t kNoReading = 65535;
} // namespace

void CounterHistory::add(std::uint64_t reading, const std::tm &t)
{
    const auto slot = [](int value) { return static_cast<std::size_t>(value); };
    const std::size_t s = slot(t.tm_sec > 59 ? 59 : t.tm_sec); // a leap second shares slot 59
    const std::size_t m = slot(t.tm_min);
    const std::size_t h = slot(t.tm_hour);
    const int d = t.tm_mday;
    seconds[s] = reading;
    average = (static_cast<float>(reading) + average) * 0.5f;

    if (s == 0) {
        std::uint64_t total = 0;
        for (const std::uint64_t v : seconds)
            total += v;
        minutes[h * 60 + m] = total;
    }

    float sum = 0.0f;
    for (const std::uint64_t v : seconds)
        sum += static_cast<float>(v);
    minuteSum = sum;

    if (s == 0 && m == 0) {
        const std::size_t first = (h == 0 ? 23 : h - 1) * 60;
        std::uint64_t total = 0;
        for (std::size_t i = 0; i < 60; ++i)
            total += minutes[first + i];
        hours[h] = total;
    }

    if (s == 0) {
        // The 60 minute slots before the current one, from slot 0 back to
        // slot 1439; the slot stored in this cycle is not among them.
        const std::size_t current = h * 60 + m;
        float rolling = 0.0f;
        for (std::size_t i = 60; i >= 1; --i)
            rolling += static_cast<float>(minutes[(current + kSlotsPerDay - i) % kSlotsPerDay]);
        hourSum = rolling;
    }

    if (s == 0 && m == 0 && h == 0 && d >= 1 && d <= 31) {
        std::uint64_t total = 0;
        for (const std::uint64_t v : hours)
            total += v;
        days[slot(d)] = total;
    }
}

bool PacketCounters::statisticsFlag()
{
    // The first byte as a decimal number, its low 8 bits. A missing or empty
    // file is off: statistics cost an SPI exchange every other second.
    const auto text = readFileStart(platform_, "/usr/bin/Zarvent/enable.cfg", 1);
    if (!text || text->empty())
        return false;
    return (parseDecimal(*text).value_or(0) & 0xFF) != 0;
}

namespace {

// 65535 is the FPGA's "no reading"; a read that failed is no reading either,
// so no slot, average or sum takes a value that did not come from the FPGA.
std::uint64_t countOf(const std::optional<std::uint64_t> &value)
{
    if (!value || *value == kNoReading)
        return 0;
    return *value;
}

} // namespace

void PacketCounters::readCounters(const CycleTime &time)
{
    if (statisticsFlag())
        capture_.capture();
    const std::uint64_t responses = countOf(registers_.readResponses());
    history_.responses.add(responses, time.local);
    const std::uint64_t requests = countOf(registers_.readRequests());
    history_.requests.add(requests, time.local);
    responsesTotal_ += responses;
    requestsTotal_ += requests;
}

} // namespace zarvent
