// What the daemon's threads share, and what guards each part of it. Values
// that pass between steps of one thread travel in signatures, not here.
//
// - The start or alarm time the status page shows (written by the cycle
//   thread at its start and by the alarm, read by the page) and the local time
//   of the latest cycle (written by the cycle, read by the supervision loop for
//   its error-log stamps) are guarded by lock_. Every access copies in or out
//   under it and never holds it across a call into the OS seam, so a reader
//   always sees a whole value.
// - The reference ntpd follows, the alarm flag, the antenna code and TAI-UTC
//   are written by the supervision thread and read by the cycle: atomics. So
//   are the error log's line count, the start time and whether the FPGA has
//   answered, for the metrics.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/mutex.h"

namespace zarvent {

// The reference ntpd follows, as the supervision loop found it.
enum class Reference {
    NotYetAsked, // before the supervision loop's first pass
    SystemPeer,  // the GPS reference clock is the system peer
    PpsPeer,     // the GPS reference clock is the PPS peer
    None,        // ntpd follows neither
};
// The name the status page and the error log give it ("" before the first
// pass).
const char *referenceName(Reference reference);

// A time as ntptime printed it, "Nov 16 2026 13:27:46.121" (24 characters),
// split as the status page prints it: the date (11 characters) and the time of
// day (8 characters). A time never read is empty.
struct DateTime {
    std::string date;
    std::string time;
};
DateTime splitDateTime(std::string_view text);

class SharedState {
  public:
    // The start time of the cycle thread, replaced by the time the alarm
    // began or ended: ntptime's 24-character date and time.
    void setEvent(std::string_view dateTime) EXCLUDES(lock_);
    DateTime event() const EXCLUDES(lock_);

    // The local time of the latest cycle.
    void setCycleTime(const std::tm &local) EXCLUDES(lock_);
    std::tm cycleTime() const EXCLUDES(lock_);

    std::atomic<Reference> reference{Reference::NotYetAsked};
    std::atomic<bool> alarm{false};
    // The antenna monitor's code: the feed line in bit 2, the short-detect
    // line in bit 1, the current-detect line in bit 0.
    std::atomic<std::uint8_t> antennaCode{0};
    // TAI-UTC in seconds, from the leap-second list; -1 when unknown.
    std::atomic<std::int32_t> taiOffset{0};
    // The FPGA has answered since its load (the FPGA thread's, for the
    // metrics).
    std::atomic<bool> fpgaConfigured{false};
    // For the metrics: lines the supervision thread wrote to the error log,
    // and the Unix second the daemon started.
    std::atomic<std::uint64_t> errorLogLines{0};
    std::atomic<std::int64_t> startTime{0};

  private:
    mutable Mutex lock_;
    std::string event_ GUARDED_BY(lock_);
    std::tm cycleTime_ GUARDED_BY(lock_) = {};
};

} // namespace zarvent
