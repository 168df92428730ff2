// The board as every thread of the daemon reaches it, wired once: the
// command runner, the GPIO lines, the FPGA's registers, the DAC and the state
// the threads share. The daemon builds the cycle loop, the supervision loop
// and the FPGA loader from it; each of them owns its own steps.
#pragma once

#include "hardware/dac.h"
#include "hardware/gpio.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"
#include "state/shared_state.h"

namespace zarvent {

struct Board {
    explicit Board(Platform &os)
        : platform(os), runner(os), gpio(os, runner), registers(os, runner), dac(os, gpio)
    {}
    Board(const Board &) = delete;
    Board &operator=(const Board &) = delete;

    Platform &platform;
    Runner runner;
    Gpio gpio;
    Registers registers;
    Dac dac; // the cycle thread's alone: it configures the lines and writes every word
    SharedState shared;
};

} // namespace zarvent
