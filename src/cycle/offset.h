// The phase offset of the last pulse, as the FPGA measured it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace zarvent {

class Registers;

// The offset in nanoseconds from the phase register's 10 ns ticks, folded
// into -500000000..499999999; 0 for 0xFEEEEEEE and above (no measurement).
std::int32_t foldPhase(std::uint32_t raw);

// The offset as the page and the steering take it: its decimal text cut at 8
// characters and read back, so -500000000 becomes -5000000.
inline constexpr std::size_t kOffsetTextLength = 8;
std::int32_t offsetAsShown(std::int32_t offsetNs);

struct OffsetReading {
    std::int32_t offsetNs = 0;
    // The FPGA measured it: false when the read failed, timed out or was
    // refused, or the register says there is no measurement (offset 0 then).
    bool measured = false;
    // The peak-to-peak offset of a block of 128 cycles, in the cycle that
    // ends the block.
    std::optional<std::int32_t> blockJitterNs;
};

class OffsetReadout {
  public:
    explicit OffsetReadout(Registers &registers) : registers_(registers) {}

    // Reads the phase register: the offset in ns (0 when the read failed),
    // and the block's jitter when this reading ends a block.
    OffsetReading readOffset();

  private:
    Registers &registers_;
    std::int32_t blockMax_ = 0;
    std::int32_t blockMin_ = 0;
    std::int32_t blockCycles_ = 0;
};

} // namespace zarvent
