// The status page /ramcache/zarvent/ntp_data.txt, an HTML fragment the web
// interface shows, rewritten whole every cycle under /ramcache/zarvent/lock:
// the date and time, the offset with its filtered mean and jitter, the
// reference, the uptime or alarm time, the packet statistics, the antenna and
// the GPS emulation flag.
#pragma once

#include <cstdint>
#include <string>

namespace zarvent {

class Platform;
class Runner;
class SharedState;
struct PacketHistory;

// The offset filter: a first-order low pass (bilinear transform, cut-off at
// 0.001 of the cycle rate, time constant about 159 cycles) on the offset and
// on its squared deviation from the mean.
struct OffsetFilter {
    float meanState = 0.0f;     // the filter's state on the offset
    float varianceState = 0.0f; // and on its squared deviation from the mean
    // Runs one sample x: the mean offset M and the jitter J.
    void run(long x, std::int32_t &mean, std::int32_t &jitter);
};

// The antenna line of the page for an antenna code: 5 "Short", 6 "Off",
// 7 "Ok", anything else six blanks.
const char *antennaText(unsigned code);

class StatusPage {
  public:
    StatusPage(Platform &platform, Runner &runner, SharedState &shared,
               const PacketHistory &packets)
        : platform_(platform), runner_(runner), shared_(shared), packets_(packets)
    {}

    // Writes the page for this cycle's offset.
    void write(std::int32_t offsetNs);

    const OffsetFilter &filter() const
    {
        return filter_;
    }

    // What the last page showed, in nanoseconds, and the emulation flag.
    struct Shown {
        long offset = 0;
        long mean = 0;
        long jitter = 0;
        bool emulation = false;
    };
    const Shown &shown() const
    {
        return shown_;
    }

  private:
    bool emulationOn();

    Platform &platform_;
    Runner &runner_;
    SharedState &shared_;
    const PacketHistory &packets_;
    OffsetFilter filter_;
    Shown shown_;
};

} // namespace zarvent
