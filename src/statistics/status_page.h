// The status page /ramcache/zarvent/ntp_data.txt, an HTML fragment the web
// interface shows, rewritten whole every cycle under /ramcache/zarvent/lock:
// the date and time, the offset with its filtered mean and jitter, the
// reference, the uptime or alarm time, the packet statistics, the antenna and
// the GPS emulation flag.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "state/cycle_time.h"
#include "state/shared_state.h"

namespace zarvent {

class Platform;
class Runner;
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

// What one cycle puts on the page besides what the supervision thread shares.
struct PageInput {
    CycleTime time;
    DateTime now; // the cycle's latest ntptime reading
    // This cycle's offset as the page shows it: its decimal text cut at 8
    // characters.
    std::int32_t offsetNs = 0;
    // The peak-to-peak offset of the block of cycles the offset readout ended
    // in this cycle, if it ended one.
    std::optional<std::int32_t> blockJitterNs;
    bool steering = false;
};

class StatusPage {
  public:
    StatusPage(Platform &platform, Runner &runner, const SharedState &shared)
        : platform_(platform), runner_(runner), shared_(shared)
    {}

    // Writes the page for this cycle.
    void write(const PageInput &in, const PacketHistory &packets);

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
    const SharedState &shared_;
    OffsetFilter filter_;
    // The jitter the page shows: the offset readout's block peak-to-peak,
    // replaced by the filter's jitter in every steered cycle.
    std::int32_t jitterNs_ = 0;
    Shown shown_;
};

} // namespace zarvent
