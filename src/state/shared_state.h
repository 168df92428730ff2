// What the daemon's threads share, and what guards each part of it.
//
// - The reference's name and the two times the status page shows (the
//   current time and the start or alarm time, each with the NTP time stamp of
//   its reading) are guarded by lock_. Every access copies in or out under it
//   and never holds it across a call into the OS seam, so a reader always sees
//   a whole value: the page's date and time come from one copy, never half
//   from an older write.
// - The alarm flag, the antenna code, TAI-UTC and the steering flag are
//   written by one thread and read by another: atomics.
// - The jitter belongs to the cycle thread (the only writer and reader).
// - The local time of the latest cycle is guarded by lock_ as well.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/mutex.h"

namespace zarvent {

// The status page shows at most 17 characters of the reference's name.
inline constexpr std::size_t kReferenceNameLength = 17;
std::string cutReferenceName(std::string_view name);

// The offset as the page and the steering take it: its decimal text cut at 8
// characters and read back, so -500000000 becomes -5000000.
inline constexpr std::size_t kOffsetTextLength = 8;
std::int32_t offsetAsShown(std::int32_t offsetNs);

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
    // The name of the reference ntpd follows, cut to 17 characters.
    void setReference(std::string_view name) EXCLUDES(lock_);
    std::string reference() const EXCLUDES(lock_);

    // The two times and the time stamp of their latest reading: the current
    // time of the cycle, and the start time or the time the alarm began or
    // ended.
    void setNow(std::string_view dateTime, std::string_view stamp) EXCLUDES(lock_);
    void setEvent(std::string_view dateTime, std::string_view stamp) EXCLUDES(lock_);
    DateTime now() const EXCLUDES(lock_);
    DateTime event() const EXCLUDES(lock_);
    std::string stamp() const EXCLUDES(lock_);

    // The local time of the latest cycle.
    void setCycleTime(const std::tm &local) EXCLUDES(lock_);
    std::tm cycleTime() const EXCLUDES(lock_);

    std::atomic<bool> alarm{false};
    // Lines 85, 87 and 86 as bits 2, 1 and 0.
    std::atomic<std::uint8_t> antennaCode{0};
    // TAI-UTC in seconds, from the leap-second list.
    std::atomic<std::int32_t> taiOffset{0};
    // 60 valid receiver cycles in a row have enabled steering.
    std::atomic<bool> steering{false};
    // The peak-to-peak offset of the latest block of 128 cycles, in ns.
    std::int32_t jitterNs = 0;
    // For the metrics: lines the supervision thread wrote to the error log,
    // and the Unix second the daemon started.
    std::atomic<std::uint64_t> errorLogLines{0};
    std::atomic<std::int64_t> startTime{0};

  private:
    mutable Mutex lock_;
    std::string reference_ GUARDED_BY(lock_);
    std::string now_ GUARDED_BY(lock_);
    std::string event_ GUARDED_BY(lock_);
    std::string stamp_ GUARDED_BY(lock_);
    std::tm cycleTime_ GUARDED_BY(lock_) = {};
};

} // namespace zarvent
