// FPGA registers through the register tool spiWrite, run from the working
// directory: "-m 0" reads, "-m 1" writes, "-l" the transfer length, "-d" the
// number of data bytes, then the register number and the data bytes in
// decimal, least significant first. The tool prints five lines; the fifth
// holds the bytes received, "AA AA" and the data bytes.
//
// A read counts only when the tool started, printed five lines and its fifth
// line has that form. Anything else (an error message in place of data, a
// short or garbled answer) is a failed read, and no caller writes back a value
// that did not come from the register: the write is skipped.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/platform.h"

namespace zarvent {

class Runner;
class SharedState;

namespace reg {
inline constexpr const char *kRead2 = "./spiWrite -m 0 -l 3 -d 1 2 0";
inline constexpr const char *kRead14 = "./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0";
inline constexpr const char *kRead24 = "./spiWrite -m 0 -l 4 -d 2 24 0 0";
inline constexpr const char *kRead26 = "./spiWrite -m 0 -l 4 -d 2 26 0 0";
inline constexpr const char *kRead28 = "./spiWrite -m 0 -l 3 -d 1 28 0 0";
inline constexpr const char *kRead48 = "./spiWrite -m 0 -l 3 -d 1 48 0";
} // namespace reg

class Registers {
  public:
    Registers(Platform &platform, Runner &runner, SharedState &shared)
        : platform_(platform), runner_(runner), shared_(shared)
    {}

    // Runs a read command line, calls the line reader `calls` times (five, or
    // six when the last call is to find the end of the output) and takes the
    // value of dataBytes data bytes from the line then in the buffer.
    std::optional<std::uint64_t> read(const std::string &line, int calls, int dataBytes);
    // The control register 2 ("./spiWrite -m 0 -l 3 -d 1 2 0", six calls).
    std::optional<unsigned> Read_Control();
    // Writes one byte to register 1 or 2: "./spiWrite -m 1 -l 3 -d 1 R V 0",
    // closed at once; false when the command could not be started.
    bool write(int reg, unsigned value, PipeMode mode);
    // Reads register 2, sets the bits of `set`, clears those of `clear` and
    // writes it back, holding the register-2 lock throughout. The value
    // written, or nothing when the read failed and nothing was written.
    std::optional<unsigned> modifyRegister2(unsigned set, unsigned clear, PipeMode mode);

  private:
    Platform &platform_;
    Runner &runner_;
    SharedState &shared_;
};

} // namespace zarvent
