// Acknowledgement of the FPGA's two event flags (register 28 bits 0 and 1):
// five seconds after a flag is first seen, bit 1 or 2 of register 2 is
// pulsed (set, then cleared), each write from a fresh read.
#pragma once

#include <cstdint>

namespace zarvent {

class Registers;

class RelayReset {
  public:
    explicit RelayReset(Registers &registers) : registers_(registers) {}

    // One cycle's look at the flags; nowSeconds is the cycle's time.
    void Relay_Reset(std::int64_t nowSeconds);

  private:
    void pulse(unsigned bit);

    Registers &registers_;
    std::uint32_t flags = 0;
    std::uint8_t over_1 = 0;
    std::uint8_t over_2 = 0;
    std::int64_t event1 = 0;
    std::int64_t event2 = 0;
    std::int64_t now = 0;
};

} // namespace zarvent
