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
    void acknowledge(std::int64_t nowSeconds);
    // The register-2 bits of pulses set and not yet cleared: a stop that cut
    // a pulse short leaves them for the daemon's last write.
    unsigned bitsInFlight() const
    {
        return inFlight_;
    }

  private:
    // An event flag seen and not yet acknowledged, since when.
    struct PendingEvent {
        bool pending = false;
        std::int64_t since = 0;
    };
    void expire(PendingEvent &event, unsigned bit, std::int64_t nowSeconds);
    void pulse(unsigned bit);

    Registers &registers_;
    PendingEvent first_;
    PendingEvent second_;
    unsigned inFlight_ = 0;
};

} // namespace zarvent
