// State the daemon's threads share, and what guards each part of it.
//
// - `Command_Out`, the position-addressed text record, and `timeinfo`, the
//   local time of the latest cycle, are guarded by recordLock_. Every access
//   copies in or out under it and never holds it across a call into the OS
//   seam, so a reader always sees a whole slot: the status page's date and
//   time come from one copy, never half from an older write.
// - `Alarm` and `Leap_Time` are written by the supervision thread and read by
//   the cycle thread: atomics.
// - `Sync_En`, `Jitter` and `Stat_Out` belong to the cycle thread (the only
//   writer and reader in the daemon); `Sync_En` is atomic so that the
//   simulator's screen may look at it.
// - FPGA register 2 is read, modified and written back by the supervision and
//   the cycle thread: `register2` is held around every such sequence, so that
//   one thread's write cannot undo the other's bit.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

#include "platform/mutex.h"

namespace zarvent {

// Positions in `Command_Out`.
namespace co {
inline constexpr std::size_t kSize = 163;
inline constexpr std::size_t kRefName = 0;  // 0-17: name of the reference ntpd follows
inline constexpr std::size_t kRefPrev = 18; // 18-35: the name of the previous pass
inline constexpr std::size_t kNameField = 18;
inline constexpr std::size_t kOffset = 53;  // 53-61: offset in ns as decimal text
inline constexpr std::size_t kAntenna = 63; // antenna code, a number
inline constexpr std::size_t kNow = 65;     // 65-89: current date and time
inline constexpr std::size_t kEvent = 117;  // 117-141: start or alarm time
inline constexpr std::size_t kStamp = 143;  // 143-160: NTP time stamp, no terminator
inline constexpr std::size_t kStampLength = 18;
inline constexpr std::size_t kTimeLength = 24; // "Nov 16 2026 13:27:46.121"
} // namespace co

// The packet statistics record, 24928 bytes, fields in this order.
struct StatOut {
    std::uint64_t ReqSec[60];
    std::uint64_t RespSec[60];
    std::uint64_t ReqMin[1440];
    std::uint64_t RespMin[1440];
    std::uint64_t ReqHour[24];
    std::uint64_t RespHour[24];
    std::uint64_t ReqDay[32];
    std::uint64_t RespDay[32];
    float RespAvg;
    float ReqAvg;
    float RespMinSum;
    float ReqMinSum;
    float RespHourSum;
    float ReqHourSum;
    // The fourteen fields fill 24920 bytes of the record's 24928; the rest is
    // reserved and stays zero.
    std::uint8_t reserved[8];
};
static_assert(sizeof(StatOut) == 24928, "Stat_Out is 24928 bytes");

// The 24-character date-and-time text of a slot, split as the status page
// prints it: the date (11 characters) and the time of day (8 characters).
struct DateTimeSlot {
    std::string date;
    std::string time;
};

class SharedState {
  public:
    SharedState();

    // ---- `Command_Out`
    // Copies bytes (terminators included, as given) to pos; bytes beyond the
    // record are dropped.
    void put(std::size_t pos, std::string_view bytes) EXCLUDES(recordLock_);
    // len bytes from pos (zeros beyond the record).
    std::string get(std::size_t pos, std::size_t len) const EXCLUDES(recordLock_);
    // The zero-terminated text at pos, at most max characters.
    std::string text(std::size_t pos, std::size_t max) const EXCLUDES(recordLock_);
    unsigned char byte(std::size_t pos) const EXCLUDES(recordLock_);
    void setByte(std::size_t pos, unsigned char value) EXCLUDES(recordLock_);
    // The date (pos to pos+10) and time (pos+12 to pos+19) of the slot at pos,
    // both from one copy.
    DateTimeSlot dateTime(std::size_t pos) const EXCLUDES(recordLock_);

    // ---- `timeinfo`: the local time of the latest cycle
    void setTimeinfo(const std::tm &local) EXCLUDES(recordLock_);
    std::tm getTimeinfo() const EXCLUDES(recordLock_);

    std::atomic<std::uint8_t> Alarm{0};
    std::atomic<std::int32_t> Leap_Time{0};
    std::atomic<std::int32_t> Sync_En{0};
    // For the metrics: lines the supervision thread wrote to the error log,
    // and the Unix second the daemon started.
    std::atomic<std::uint64_t> errorLogLines{0};
    std::atomic<std::int64_t> startTime{0};
    std::int32_t Jitter = 0;
    StatOut Stat_Out{};

    // Held around every read-modify-write of FPGA register 2.
    Mutex register2;

  private:
    mutable Mutex recordLock_;
    char Command_Out[co::kSize] GUARDED_BY(recordLock_) = {};
    std::tm timeinfo GUARDED_BY(recordLock_) = {};
};

} // namespace zarvent
