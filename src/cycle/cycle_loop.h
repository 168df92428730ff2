// The one-second cycle: the FPGA raises its pulse line once per second; the
// cycle thread polls it every 500 µs and runs the cycle once per high phase.
// The loop owns the steps the cycle runs, in the order it runs them, and
// tells nobody more than it knows: without a pulse it stops claiming
// steering, with a clock that disagrees with the pulse it hands no seconds
// count over, and at a stop it withdraws what it claimed.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "cycle/client.h"
#include "cycle/handover.h"
#include "cycle/offset.h"
#include "cycle/qualification.h"
#include "cycle/relay.h"
#include "cycle/steering.h"
#include "hardware/gpio.h"
#include "hardware/runner.h"
#include "state/cycle_time.h"
#include "statistics/capture.h"
#include "statistics/counters.h"
#include "statistics/status_page.h"

namespace zarvent {

class Platform;
class Registers;
class Dac;
class SharedState;
struct NtptimeAnswer;

// A condition the daemon names on standard error once when it begins and
// once when it has been gone for a minute: a condition that flaps at its edge
// is one episode, not a message a second.
class Episode {
  public:
    enum class Change { None, Began, Ended };
    Change update(bool present, std::int64_t nowNs);
    bool active() const
    {
        return active_;
    }

  private:
    static constexpr std::int64_t kQuietNs = 60'000'000'000;
    bool active_ = false;
    std::int64_t lastSeenNs_ = 0;
};

class CycleLoop {
  public:
    CycleLoop(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers, Dac &dac,
              SharedState &shared);

    // Set-up: the pulse line as a rising-edge input, the start time, the DAC
    // lines and the DAC's defaults.
    void setup();
    // One poll of the pulse line (without the sleep): true when a cycle ran.
    // Between pulses it watches how long the last one is past.
    bool poll();
    // The cycle's steps, in order.
    void runCycle();
    // The thread: set-up, then a poll every 500 µs until the daemon stops.
    void run();
    // At an orderly stop, once every thread has ended: the FPGA's sync and
    // reference-valid bits cleared, relay pulses cut short taken back, the
    // metrics file removed.
    void releaseClaims();

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
    // deadline: 24 register commands (capture 4, counters 2, relay 9, client
    // 1, hand-over 3, offset 1, qualification 2, steering 2), two ntptime, the
    // clockvar
    // query, eight shell commands (six indicator echoes, two rm of lock
    // files), and four waits for the register-2 lock, which the supervision
    // loop holds for one read and one write.
    static constexpr Deadline kWorstCycle = 24 * kRegisterToolDeadline + 2 * kNtptimeDeadline +
                                            kClockvarDeadline + 8 * kShellDeadline +
                                            4 * 2 * kRegisterToolDeadline;
    static constexpr std::chrono::seconds kProgressBound{150};
    static_assert(kProgressBound >= kWorstCycle + std::chrono::seconds{20});

    // No pulse for this long: the board stops claiming steering.
    static constexpr std::int64_t kPulseLostNs = 3'000'000'000;
    // The clock read at the pulse lies within this of the top of a second,
    // or it disagrees with the pulse and no count is handed over.
    static constexpr std::int64_t kClockAgreesNs = 100'000'000;

  private:
    CycleTime timeOfThisCycle(std::int64_t realtimeNs);
    void checkKernelClock(const NtptimeAnswer &answer, std::int64_t nowNs);
    void watchForThePulse();
    void writeMetricsFile(std::int64_t second);
    void say(const std::string &message);

    Platform &platform_;
    Runner &runner_;
    Gpio &gpio_;
    Registers &registers_;
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
    // The pulse: when the last cycle it started ended (monotonic), whether it
    // is lost, when the metrics were last written without one.
    std::int64_t lastPulseNs_ = 0;
    bool pulseLost_ = false;
    std::int64_t lastMetricsNs_ = 0;
    // This cycle's offset came from the FPGA.
    bool offsetMeasured_ = false;
    // The clock at the pulse, and what ntptime says of the kernel clock.
    Episode clockOff_;
    std::uint64_t handoversSkipped_ = 0;
    std::uint64_t skippedInEpisode_ = 0;
    std::optional<bool> kernelSynchronised_;
    Episode kernelUnsynchronised_;
    std::optional<std::int32_t> kernelTaiOffset_;
    Episode taiOffsetsDiffer_;
    std::int64_t lastSecond_ = 0;
    std::atomic<std::uint64_t> progress_{0};
};

} // namespace zarvent
