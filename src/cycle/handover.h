// The hand-over of the time to the FPGA: every second the reference is
// valid, the FPGA receives the seconds count of the coming second on the TAI
// scale through registers 10, 3 and 11.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "ntp/ntp_parsers.h"

namespace zarvent {

class Runner;
class Registers;
class SharedState;

// Runs ntptime and keeps the reading as the cycle's current time; a reading
// that fails leaves the current time as it was.
std::optional<NtptimeReading> readCurrentTime(Runner &runner, SharedState &shared);

// The seconds count the FPGA is to show from its next pulse: the NTP seconds
// of the hexadecimal time stamp at the start of text, as Unix seconds, plus
// one, plus TAI-UTC.
std::int64_t taiCountOfNextSecond(std::string_view stamp, std::int32_t taiOffset);

class TimeHandover {
  public:
    TimeHandover(Runner &runner, Registers &registers, SharedState &shared)
        : runner_(runner), registers_(registers), shared_(shared)
    {}

    // Writes the count of `first` (this cycle's reading) to the FPGA: register
    // 10 opens the hand-over, register 3 takes the count, and register 11
    // closes it only when a second reading shows the same second.
    void handOver(const NtptimeReading &first);

    // The hand-over number, 1 to 255 and round again, never 0.
    std::uint8_t number() const
    {
        return number_;
    }
    void setNumber(std::uint8_t value)
    {
        number_ = value;
    }
    // Hand-overs closed with register 11, and those that ended before.
    std::uint64_t closed() const
    {
        return closed_;
    }
    std::uint64_t failed() const
    {
        return failed_;
    }

  private:
    Runner &runner_;
    Registers &registers_;
    SharedState &shared_;
    std::uint8_t number_ = 1;
    std::uint64_t closed_ = 0;
    std::uint64_t failed_ = 0;
};

} // namespace zarvent
