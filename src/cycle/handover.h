// The system time read with ntptime, and its hand-over to the FPGA: every
// second the reference is valid, the FPGA receives the seconds count of the
// coming second on the TAI scale through registers 10, 3 and 11.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "hardware/parsers.h"

namespace zarvent {

class Runner;
class SharedState;

// Runs "ntptime" and, when its second line has the classic form, leaves its
// NTP time stamp at `Command_Out` 143-160 and its date and time (24
// characters and a zero byte) at slot (the start-time slot 117 or the
// current-time slot 65). A reading that fails leaves both slots as they were.
std::optional<NtptimeReading> ControlTime(Runner &runner, SharedState &shared, std::size_t slot);

// The seconds count the FPGA is to show from its next pulse: the NTP seconds
// of the hexadecimal time stamp at the start of text, as Unix seconds, plus
// one, plus TAI-UTC.
std::int64_t Time_to_hex(std::string_view text, std::int32_t leapTime);

class TimeHandover {
  public:
    TimeHandover(Runner &runner, SharedState &shared) : runner_(runner), shared_(shared) {}

    // Writes the count of `first` (this cycle's reading) to the FPGA: register
    // 10 opens the hand-over, register 3 takes the count, and register 11
    // closes it only when a second reading shows the same second.
    void Send_Time(const NtptimeReading &first);

    std::uint8_t transCount() const
    {
        return Trans_count;
    }
    void setTransCount(std::uint8_t value)
    {
        Trans_count = value;
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
    SharedState &shared_;
    // The hand-over number, 1 to 255 and round again, never 0.
    std::uint8_t Trans_count = 1;
    std::uint64_t closed_ = 0;
    std::uint64_t failed_ = 0;
};

} // namespace zarvent
