// The factory-default button (0: pressed): the factory network
// address at once, and the factory copies of the NTP, resolver and network
// configuration in place, each replaced file kept with ".bak" appended.
// The factory-default indicator is on meanwhile.
#pragma once

namespace zarvent {

class Platform;
class Runner;
class Gpio;

class FactoryDefault {
  public:
    FactoryDefault(Platform &platform, Runner &runner, Gpio &gpio)
        : platform_(platform), runner_(runner), gpio_(gpio)
    {}

    // True when the button was pressed and the files restored.
    bool restoreOnPress();

  private:
    Platform &platform_;
    Runner &runner_;
    Gpio &gpio_;
};

} // namespace zarvent
