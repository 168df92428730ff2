// The client-activity indicator on lines 70 and 71: a short flash of line 71
// in every cycle in which the FPGA sent PTP responses (low byte of register 26).
#pragma once

namespace zarvent {

class Platform;
class Gpio;
class Registers;

class ClientIndicator {
  public:
    ClientIndicator(Platform &platform, Gpio &gpio, Registers &registers)
        : platform_(platform), gpio_(gpio), registers_(registers)
    {}

    // Lines 70 and 71 off.
    void switchOff();
    // Reads register 26 and flashes line 71 when its low byte is not zero.
    void flashOnResponses();

  private:
    Platform &platform_;
    Gpio &gpio_;
    Registers &registers_;
};

} // namespace zarvent
