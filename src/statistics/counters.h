// The PTP packet counters: the FPGA's requests (register 24) and responses
// (register 26) of the last second, kept by second, minute, hour and day,
// with running averages and rolling sums for the status page.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>

namespace zarvent {

class Platform;
class Registers;
class StatCapture;
struct CycleTime;

// One counter's history: the readings of the last 60 seconds, the totals of
// the minutes of the day, of the hours of the day and of the days of the
// month (slot 0 unused), its running average and the sums of the last minute
// and of the last 60 minutes.
struct CounterHistory {
    std::array<std::uint64_t, 60> seconds{};
    std::array<std::uint64_t, 1440> minutes{};
    std::array<std::uint64_t, 24> hours{};
    std::array<std::uint64_t, 32> days{};
    float average = 0.0f;
    float minuteSum = 0.0f;
    float hourSum = 0.0f;

    // One reading folded in at local time t: the second's slot, the running
    // average, and at the start of a minute, hour and day the totals of the
    // period just ended.
    void add(std::uint64_t reading, const std::tm &t);
};

struct PacketHistory {
    CounterHistory requests;
    CounterHistory responses;
};

class PacketCounters {
  public:
    PacketCounters(Platform &platform, Registers &registers, StatCapture &capture)
        : platform_(platform), registers_(registers), capture_(capture)
    {}

    // The first step of every cycle: the statistics flag, the SPI capture
    // when it is on, the two counters into the slots of the cycle's time.
    void readCounters(const CycleTime &time);

    const PacketHistory &history() const
    {
        return history_;
    }
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

    Platform &platform_;
    Registers &registers_;
    StatCapture &capture_;
    PacketHistory history_;
    std::uint64_t requestsTotal_ = 0;
    std::uint64_t responsesTotal_ = 0;
};

} // namespace zarvent
