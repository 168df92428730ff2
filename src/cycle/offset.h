// The phase offset of the last pulse, as the FPGA measured it, and the
// qualification of the receiver's data that enables steering.
#pragma once

#include <cstdint>

namespace zarvent {

class Runner;
class Registers;
class SharedState;

// The offset in nanoseconds from register 14's phase in 10 ns ticks, folded
// into -500000000..499999999; 0 for 0xFEEEEEEE and above (no measurement).
std::int32_t foldPhase(std::uint32_t raw);

class OffsetReadout {
  public:
    OffsetReadout(Runner &runner, Registers &registers, SharedState &shared)
        : runner_(runner), registers_(registers), shared_(shared)
    {}

    // Reads register 14, leaves the offset as text at `Command_Out` 53 (at
    // most 8 characters) and keeps the peak-to-peak jitter of 128-cycle blocks.
    std::int32_t ControlOffset();
    // Reads the receiver's RMC status from "ntpq -c clockvar": 60 valid cycles
    // in a row set `Sync_En` and register 1 bit 0, an invalid one clears both.
    void Nav_Parse();

    // Valid receiver cycles in a row so far (60 qualify).
    std::uint32_t validCycles() const
    {
        return sync_count;
    }

  private:
    void writeSyncBit(bool set);

    Runner &runner_;
    Registers &registers_;
    SharedState &shared_;
    std::int32_t Max = 0;
    std::int32_t Min = 0;
    std::int32_t n = 0;
    std::uint32_t sync_count = 0;
};

} // namespace zarvent
