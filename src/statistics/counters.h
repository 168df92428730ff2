// The PTP packet counters: the FPGA's requests (register 24) and responses
// (register 26) of the last second, kept by second, minute, hour and day in
// `Stat_Out`, with running averages and rolling sums for the status page.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace zarvent {

class Platform;
class Registers;
class SharedState;
class StatCapture;
struct StatOut;

// One counter's reading folded into its fields of `Stat_Out`, at the local
// time t: the second slot, the running average, and at the start of a
// minute, hour and day the totals of the period just ended.
struct CounterFields {
    std::uint64_t *sec;
    std::uint64_t *min;
    std::uint64_t *hour;
    std::uint64_t *day;
    float *avg;
    float *minSum;
    float *hourSum;
};
void aggregate(const CounterFields &c, std::uint64_t reading, const std::tm &t);
CounterFields requestFields(StatOut &out);
CounterFields responseFields(StatOut &out);

class PacketCounters {
  public:
    PacketCounters(Platform &platform, Registers &registers, SharedState &shared,
                   StatCapture &capture)
        : platform_(platform), registers_(registers), shared_(shared), capture_(capture)
    {}

    // The first step of every cycle: the statistics flag, `timeinfo` for the
    // cycle's second, the SPI capture when the flag is on, the two counters.
    void Stat_read(std::int64_t cycleSecond);

    // Every reading since the daemon started (the registers count one
    // second each).
    std::uint64_t requestsTotal() const
    {
        return requestsTotal_;
    }
    std::uint64_t responsesTotal() const
    {
        return responsesTotal_;
    }

  private:
    bool statisticsFlag();
    std::uint64_t reading(const std::string &line);

    Platform &platform_;
    Registers &registers_;
    SharedState &shared_;
    StatCapture &capture_;
    std::uint64_t requestsTotal_ = 0;
    std::uint64_t responsesTotal_ = 0;
};

} // namespace zarvent
