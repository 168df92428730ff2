// The qualification of the receiver's data that enables steering: 60 valid
// cycles in a row enable it, the first invalid cycle disables it.
#pragma once

#include <cstdint>

namespace zarvent {

class Runner;
class Registers;

class ReceiverQualification {
  public:
    ReceiverQualification(Runner &runner, Registers &registers)
        : runner_(runner), registers_(registers)
    {}

    // Reads the receiver's RMC status from "ntpq -c clockvar": the 60th
    // valid cycle in a row enables steering and sets the FPGA's sync bit, an
    // invalid one disables both.
    void qualify();
    // No pulse comes: steering stops and the FPGA's sync bit is cleared, so
    // that qualification starts afresh when pulses return.
    void withdraw();

    // Steering is enabled: it gates the hand-over and the steering.
    bool steeringEnabled() const
    {
        return steering_;
    }
    // Valid receiver cycles in a row so far (60 qualify).
    std::uint32_t validCycles() const
    {
        return validCycles_;
    }

  private:
    Runner &runner_;
    Registers &registers_;
    bool steering_ = false;
    std::uint32_t validCycles_ = 0;
};

} // namespace zarvent
