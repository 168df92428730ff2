// The one-second cycle: the FPGA raises line 19 once per second; the cycle
// thread polls it every 500 µs and runs the cycle once per high phase.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "hardware/gpio.h"

namespace zarvent {

struct Parts;

// The cycle's time in whole seconds: the pulse marks the top of the second,
// so the realtime clock read during the cycle is rounded to the nearest
// second. Read at full resolution, it never shows the previous second a tick
// after the boundary, as the kernel's coarse clock behind time() can: two
// cycles never share one second's slots and no slot is skipped.
std::int64_t cycleSecond(std::int64_t realtimeNs);

class CycleLoop {
  public:
    explicit CycleLoop(Parts &parts);

    // Set-up: line 19 as a rising-edge input, the start time, the DAC lines
    // and the DAC's defaults.
    void setup();
    // One poll of line 19 (without the sleep): true when a cycle ran.
    bool poll();
    // The cycle's steps, in order.
    void runCycle();
    // The thread: set-up, then a poll every 500 µs until the daemon stops.
    void run();

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
    void writeMetricsFile(std::int64_t second);

    Parts &parts_;
    OpenPin pulse_;
    // The line has been seen low since the last cycle: the cycle is armed.
    bool armed_ = true;
    std::atomic<std::uint64_t> progress_{0};
};

} // namespace zarvent
