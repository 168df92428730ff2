// The FPGA loader thread: loads the bitstream once at start ("./wrFPGA --file
// Version_1.rbf"), then writes register 1 once a second until the register
// tool's answer line reads "AA AA A5"; afterwards it has nothing to do.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zarvent {

class Platform;
class Runner;
class Gpio;
class Registers;

// True when an answer line (of a 200-byte read) is "AA AA A5" and exactly one
// more character, its line end; only its first 10 characters take part.
bool fpgaAnswered(const char *line);

class FpgaLoader {
  public:
    FpgaLoader(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers)
        : platform_(platform), runner_(runner), gpio_(gpio), registers_(registers)
    {}

    // Exports the FPGA's check and spare lines as inputs.
    void setup();
    // Loads the FPGA if it has not answered yet; returns once it has.
    void loadUntilConfigured();
    void run();

    // Loop iterations so far, for the watchdog: it stops feeding systemd's
    // watchdog when this stays still for longer than kProgressBound.
    std::uint64_t progress() const
    {
        return progress_.load(std::memory_order_relaxed);
    }
    // The longest one iteration may take: the loader at its deadline
    // (120 s), then a readiness check (two register commands, 2 s each).
    static constexpr std::chrono::seconds kProgressBound{150};

  private:
    bool attempt();

    Platform &platform_;
    Runner &runner_;
    Gpio &gpio_;
    Registers &registers_;
    bool configured_ = false;
    std::atomic<std::uint64_t> progress_{0};
};

} // namespace zarvent
