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
//
// This is the only code that writes the register tool's command lines.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/mutex.h"
#include "platform/platform.h"

namespace zarvent {

class Runner;

class Registers {
  public:
    Registers(Platform &platform, Runner &runner) : platform_(platform), runner_(runner) {}

    // The control register 2 ("./spiWrite -m 0 -l 3 -d 1 2 0", the line
    // reader called six times).
    [[nodiscard]] std::optional<unsigned> readControl();
    // The pulse's phase, register 14 (four data bytes, six calls).
    [[nodiscard]] std::optional<std::uint32_t> readPhase();
    // The PTP requests and responses the FPGA counted in the last second
    // (two data bytes, five calls).
    [[nodiscard]] std::optional<std::uint64_t> readRequests();
    [[nodiscard]] std::optional<std::uint64_t> readResponses();
    // The relay event flags and the statistics capture's control: one data
    // byte, five calls.
    [[nodiscard]] std::optional<unsigned> readRelayEvents();
    [[nodiscard]] std::optional<unsigned> readCaptureControl();

    // Writes one byte to register 1 or 2: "./spiWrite -m 1 -l 3 -d 1 R V 0",
    // closed at once; false when the command could not be started.
    bool write(int reg, unsigned value, PipeMode mode);
    // The same write to register 1, with the tool's fifth line read through a
    // buffer of bufferSize bytes: the line, or nothing when the tool could
    // not be started or printed fewer than five lines.
    [[nodiscard]] std::optional<std::string> writeSyncAnswered(unsigned value,
                                                               std::size_t bufferSize);
    // Reads register 2, sets the bits of `set`, clears those of `clear` and
    // writes it back, holding the register-2 lock throughout, so that the
    // cycle's and the supervision's updates never undo each other's bit. The
    // value written, or nothing when the read failed and nothing was written
    // or the write could not be run.
    std::optional<unsigned> modifyControl(unsigned set, unsigned clear, PipeMode mode);
    // Register 1 takes register 2's value with the sync bit set or cleared;
    // a failed read of register 2 is not written anywhere.
    void copyControlToSync(bool syncBit, PipeMode mode);

    // The daemon's last word to the FPGA at an orderly stop, so that nothing
    // claims synchronisation once nothing runs: register 2 loses its
    // reference-valid bit and the relay bits in `relayBits` (pulses cut
    // short), every other bit kept; then register 1 takes register 2's value
    // with its sync bit cleared. Each through the usual read-modify-write.
    void releaseClaims(unsigned relayBits);

    // The time hand-over, run by absolute path with a newline, mode "w":
    // the hand-over's number to register 10 (open) or 11 (close), and the
    // seconds count's six bytes to register 3. False when the command could
    // not be started.
    bool writeHandover(int reg, unsigned number);
    bool writeCount(std::uint64_t count);

  private:
    // A read of one register; one that gives no value is counted under what.
    std::optional<std::uint64_t> read(const char *what, const char *line, int calls, int dataBytes);
    std::optional<unsigned> readOneByte(const char *what, const char *line);

    Platform &platform_;
    Runner &runner_;
    Mutex controlLock_;
};

} // namespace zarvent
