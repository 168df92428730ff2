// The client-activity indicator (two lines, "off" and "on"): a short flash of
// its "on" line in every cycle in which the FPGA sent PTP responses (the low
// byte of the response counter).
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

    // Both lines off.
    void switchOff();
    // Reads the response counter and flashes the indicator when its low byte
    // is not zero.
    void flashOnResponses();

  private:
    Platform &platform_;
    Gpio &gpio_;
    Registers &registers_;
};

} // namespace zarvent
