// The one-second cycle: the FPGA raises its pulse line once per second; the
// cycle thread polls it every 500 µs and runs the cycle once per high phase.
// The loop owns the steps the cycle runs, in the order it runs them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "cycle/client.h"
#include "cycle/handover.h"
#include "cycle/offset.h"
#include "cycle/qualification.h"
#include "cycle/relay.h"
#include "cycle/steering.h"
#include "hardware/gpio.h"
#include "state/cycle_time.h"
#include "statistics/capture.h"
#include "statistics/counters.h"
#include "statistics/status_page.h"

namespace zarvent {

class Platform;
class Runner;
class Registers;
class Dac;
class SharedState;

class CycleLoop {
  public:
    CycleLoop(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers, Dac &dac,
              SharedState &shared);

    // Set-up: the pulse line as a rising-edge input, the start time, the DAC
    // lines and the DAC's defaults.
    void setup();
    // One poll of the pulse line (without the sleep): true when a cycle ran.
    bool poll();
    // The cycle's steps, in order.
    void runCycle();
    // The thread: set-up, then a poll every 500 µs until the daemon stops.
    void run();

    // The receiver has qualified: the cycle hands the time over and steers.
    bool steeringEnabled() const
    {
        return qualification_.steeringEnabled();
    }

    // Loop iterations so far, for the watchdog: it stops feeding systemd's
    // watchdog when this stays still for longer than kProgressBound.
    std::uint64_t progress() const
    {
        return progress_.load(std::memory_order_relaxed);
    }
    // The longest one poll may take with every command of a cycle at its
    // deadline: up to 24 register commands and two ntptime (2 s each), ntpq
    // (8 s), up to six indicator echoes and two rm of lock files (5 s), about
    // 110 s, and a wait for the register-2 lock.
    static constexpr std::chrono::seconds kProgressBound{150};

  private:
    CycleTime timeOfThisCycle();
    void writeMetricsFile(std::int64_t second);

    Platform &platform_;
    Runner &runner_;
    Gpio &gpio_;
    Dac &dac_;
    SharedState &shared_;
    // The steps, in the order of the cycle.
    StatCapture capture_;
    PacketCounters counters_;
    RelayReset relay_;
    ClientIndicator client_;
    TimeHandover handover_;
    OffsetReadout offset_;
    ReceiverQualification qualification_;
    StatusPage page_;
    Steering steering_;

    OpenPin pulse_;
    // The line has been seen low since the last cycle: the cycle is armed.
    bool armed_ = true;
    // The latest local time the zone gave; kept when a conversion fails.
    std::tm local_{};
    // The latest ntptime reading's date and time: the page shows it until a
    // reading succeeds again.
    std::string now_;
    std::atomic<std::uint64_t> progress_{0};
};

} // namespace zarvent
