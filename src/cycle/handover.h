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

// The seconds count the FPGA is to show from its next pulse: the NTP seconds
// of the hexadecimal time stamp at the start of text, as Unix seconds, plus
// one, plus TAI-UTC.
std::int64_t taiCountOfNextSecond(std::string_view stamp, std::int32_t taiOffset);

class TimeHandover {
  public:
    TimeHandover(Runner &runner, Registers &registers, const SharedState &shared)
        : runner_(runner), registers_(registers), shared_(shared)
    {}

    // Writes the count of `first` (this cycle's reading) to the FPGA: the
    // hand-over's number opens it, the count follows, and the same number
    // closes it only when a second reading shows the same second. The second
    // reading when it was taken and has the classic form: the cycle's time
    // from then on.
    std::optional<NtptimeReading> handOver(const NtptimeReading &first);

    // Hand-overs closed, and those that ended before.
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
    const SharedState &shared_;
    std::uint8_t number_ = 1; // 1 to 255 and round again, never 0
    std::uint64_t closed_ = 0;
    std::uint64_t failed_ = 0;
};

} // namespace zarvent
