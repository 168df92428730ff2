// The FPGA as its two tools reach it: the register tool spiWrite over a file
// of 64 registers, and the loader wrFPGA that configures it with the
// bitstream. An unconfigured FPGA answers every transfer with FF bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "board_files.h"
#include "board_lock.h"
#include "program_run.h"

namespace zarvent::sim {

enum class RegisterToolFault { None, Garbage, Short };

using RegisterReadHook = std::function<void(int reg)>;
using RegisterWriteHook = std::function<void(int reg, std::uint64_t value)>;

class FpgaModel {
  public:
    FpgaModel(BoardMutex &mutex, BoardFiles &files);

    void setRegister(int reg, std::uint64_t value);
    std::uint64_t registerValue(int reg) const;
    // A configured FPGA answers "AA AA A5" to writes; an unconfigured one "FF FF FF".
    void setConfigured(bool configured);
    void setRegisterToolFault(RegisterToolFault fault);
    // Writes to registers 1 and 2 whose value is not one the register tool
    // printed for register 2 or 48 (bits 0 to 2 aside, which the daemon sets
    // and clears): a value that did not come from the register.
    int unreadRegisterWrites() const;
    // The loader fails to configure the FPGA (false: it works again).
    void setLoaderBroken(bool broken);
    // Called (without the board's lock) for every register read, before the
    // value is printed, and for every register write.
    void setRegisterHooks(RegisterReadHook onRead, RegisterWriteHook onWrite);
    int loaderRuns() const;

    // ---- the tools
    // spiWrite -m MODE -l LENGTH -d COUNT REG [BYTES...]: five lines, the
    // fifth the bytes clocked back from the FPGA.
    void runRegisterToolLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    // wrFPGA --file BITSTREAM: configures the FPGA when the bitstream is there.
    void runLoaderLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    // The register values printed so far, to be taken back when a faulty
    // tool's output replaced them.
    std::size_t printedMarkLocked() const REQUIRES(kBoardLock);
    void forgetPrintedSinceLocked(std::size_t mark) REQUIRES(kBoardLock);

  private:
    BoardMutex &mutex_;
    BoardFiles &files_;
    std::array<std::uint64_t, 64> registers_ GUARDED_BY(kBoardLock){};
    bool configured_ GUARDED_BY(kBoardLock) = true;
    int loaderRuns_ GUARDED_BY(kBoardLock) = 0;
    bool loaderBroken_ GUARDED_BY(kBoardLock) = false;
    RegisterToolFault toolFault_ GUARDED_BY(kBoardLock) = RegisterToolFault::None;
    RegisterReadHook onRead_ GUARDED_BY(kBoardLock);
    RegisterWriteHook onWrite_ GUARDED_BY(kBoardLock);
    // Register values the tool printed lately.
    std::vector<std::pair<int, std::uint64_t>> printed_ GUARDED_BY(kBoardLock);
    int unreadWrites_ GUARDED_BY(kBoardLock) = 0;
};

} // namespace zarvent::sim
