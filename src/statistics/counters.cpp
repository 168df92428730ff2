#include "statistics/counters.h"

#include "daemon/files.h"
#include "daemon/shared.h"
#include "hardware/parsers.h"
#include "hardware/registers.h"
#include "platform/platform.h"
#include "statistics/capture.h"

namespace zarvent {

namespace {
constexpr int kSlotsPerDay = 1440;
constexpr std::uint64_t kNoReading = 65535;
} // namespace

CounterFields requestFields(StatOut &out)
{
    return {out.ReqSec,  out.ReqMin,     out.ReqHour,    out.ReqDay,
            &out.ReqAvg, &out.ReqMinSum, &out.ReqHourSum};
}

CounterFields responseFields(StatOut &out)
{
    return {out.RespSec,  out.RespMin,     out.RespHour,    out.RespDay,
            &out.RespAvg, &out.RespMinSum, &out.RespHourSum};
}

void aggregate(const CounterFields &c, std::uint64_t reading, const std::tm &t)
{
    const int s = t.tm_sec > 59 ? 59 : t.tm_sec; // a leap second shares slot 59
    const int m = t.tm_min;
    const int h = t.tm_hour;
    const int d = t.tm_mday;
    c.sec[s] = reading;
    *c.avg = (static_cast<float>(reading) + *c.avg) * 0.5f;

    if (s == 0) {
        std::uint64_t total = 0;
        for (int i = 0; i < 60; ++i)
            total += c.sec[i];
        c.min[h * 60 + m] = total;
    }

    float minSum = 0.0f;
    for (int i = 0; i < 60; ++i)
        minSum += static_cast<float>(c.sec[i]);
    *c.minSum = minSum;

    if (s == 0 && m == 0) {
        const int first = (h == 0 ? 23 : h - 1) * 60;
        std::uint64_t total = 0;
        for (int i = 0; i < 60; ++i)
            total += c.min[first + i];
        c.hour[h] = total;
    }

    if (s == 0) {
        // The 60 minute slots before the current one, from slot 0 back to
        // slot 1439; the slot stored in this cycle is not among them.
        const int current = h * 60 + m;
        float hourSum = 0.0f;
        for (int i = 60; i >= 1; --i)
            hourSum += static_cast<float>(c.min[(current - i + kSlotsPerDay) % kSlotsPerDay]);
        *c.hourSum = hourSum;
    }

    if (s == 0 && m == 0 && h == 0 && d >= 1 && d <= 31) {
        std::uint64_t total = 0;
        for (int i = 0; i < 24; ++i)
            total += c.hour[i];
        c.day[d] = total;
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

std::uint64_t PacketCounters::reading(const std::string &line)
{
    // 65535 is the FPGA's "no reading"; a read that failed is no reading
    // either, so no slot, average or sum takes a value that did not come from
    // the FPGA.
    const auto value = registers_.read(line, 5, 2);
    if (!value || *value == kNoReading)
        return 0;
    return *value;
}

void PacketCounters::Stat_read(std::int64_t cycleSecond)
{
    const bool flag = statisticsFlag();
    if (const auto local = platform_.localTime(cycleSecond))
        shared_.setTimeinfo(*local);
    const std::tm t = shared_.getTimeinfo();
    if (flag)
        capture_.Stat_capture();
    const std::uint64_t responses = reading(reg::kRead26);
    aggregate(responseFields(shared_.Stat_Out), responses, t);
    const std::uint64_t requests = reading(reg::kRead24);
    aggregate(requestFields(shared_.Stat_Out), requests, t);
    responsesTotal_ += responses;
    requestsTotal_ += requests;
}

} // namespace zarvent
