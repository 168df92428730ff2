// The FPGA loader thread: loads the bitstream at start ("./wrFPGA --file
// Version_1.rbf"), then writes register 1 once a second until the register
// tool's answer line reads "AA AA A5"; afterwards it has nothing to do. A
// load that never ends (the loader killed at its deadline) or an FPGA that
// does not answer within a minute of its load is loaded again, for a board
// whose FPGA stays empty serves nobody.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "hardware/runner.h"

namespace zarvent {

class Platform;
class Gpio;
class Registers;
class SharedState;

// True when an answer line (of a 200-byte read) is "AA AA A5" and exactly one
// more character, its line end; only its first 10 characters take part.
bool fpgaAnswered(const char *line);

class FpgaLoader {
  public:
    FpgaLoader(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers,
               SharedState &shared)
        : platform_(platform), runner_(runner), gpio_(gpio), registers_(registers), shared_(shared)
    {}

    // Exports the FPGA's check and spare lines as inputs.
    void setup();
    // Loads the FPGA if it has not answered yet, and again while it does not;
    // returns once it has (or the daemon stops).
    void loadUntilConfigured();
    void run();

    // Loop iterations so far, for the watchdog: it stops feeding systemd's
    // watchdog when this stays still for longer than kProgressBound.
    std::uint64_t progress() const
    {
        return progress_.load(std::memory_order_relaxed);
    }
    // The readiness checks after one load, one a second.
    static constexpr int kChecksPerLoad = 60;
    // The longest one iteration may take: the loader at its deadline, or a
    // readiness check (a register read and a register write) and its pause.
    static constexpr std::chrono::seconds kProgressBound{150};
    static_assert(kProgressBound >=
                  kLoaderDeadline + 2 * kRegisterToolDeadline + std::chrono::seconds{20});

  private:
    bool attempt();

    Platform &platform_;
    Runner &runner_;
    Gpio &gpio_;
    Registers &registers_;
    SharedState &shared_;
    bool configured_ = false;
    bool reloadSaid_ = false;
    std::atomic<std::uint64_t> progress_{0};
};

} // namespace zarvent
