// The DAC that pulls the reference oscillator, written as a 24-bit word shifted
// out most significant bit first on three GPIO lines: clock, data and select
// (active low). Word: command in bits 23-20, value in bits 19-4.
//
// Only the cycle thread uses the DAC, and it alone configures the three lines
// (configureLines): no other thread can drive the select line low in the
// middle of a word.
#pragma once

#include "hardware/gpio.h"

namespace zarvent {

class Dac {
  public:
    Dac(Platform &platform, Gpio &gpio);

    // Exports the three lines as outputs: clock 0, select 1 (idle), data 0.
    void configureLines();
    // Shifts out the word (command << 20) | (value << 4). False, and nothing
    // sent, for a command above 15; a value above 65535 is sent as 65535.
    bool writeWord(unsigned command, unsigned value);

  private:
    Gpio &gpio_;
    OpenPin clock_;
    OpenPin select_;
    OpenPin data_;
};

} // namespace zarvent
