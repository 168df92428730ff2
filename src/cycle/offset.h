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

    // Reads register 14: the offset in ns (0 when the read failed). Keeps the
    // peak-to-peak jitter of 128-cycle blocks.
    std::int32_t readOffset();
    // Reads the receiver's RMC status from "ntpq -c clockvar": 60 valid cycles
    // in a row enable steering and set register 1 bit 0, an invalid one
    // disables both.
    void qualifyReceiver();

    // Valid receiver cycles in a row so far (60 qualify).
    std::uint32_t validCycles() const
    {
        return validCycles_;
    }

  private:
    Runner &runner_;
    Registers &registers_;
    SharedState &shared_;
    std::int32_t blockMax_ = 0;
    std::int32_t blockMin_ = 0;
    std::int32_t blockCycles_ = 0;
    std::uint32_t validCycles_ = 0;
};

} // namespace zarvent
