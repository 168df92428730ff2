// The supervision loop: the slow loop that asks ntpd which reference it
// follows, drives the reference indicators, keeps and logs the reference
// name, sets the reference-valid bit, and runs the alarm, antenna and
// factory-default checks and the indicator test, in passes of 3 seconds plus
// the commands' run time.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "hardware/runner.h"
#include "state/shared_state.h"
#include "supervision/alarm.h"
#include "supervision/antenna.h"
#include "supervision/factory.h"
#include "supervision/reference.h"

namespace zarvent {

class Platform;
class Runner;
class Gpio;
class Registers;

// The error log for reference changes; it is bounded: past kLimit bytes it
// becomes errorlog.log.1 (replacing the one before) and a new log begins, so
// a reference that flaps for weeks never fills the RAM disk.
namespace errorlog {
inline constexpr const char *kPath = "/ramcache/zarvent/errorlog.log";
inline constexpr const char *kPrevious = "/ramcache/zarvent/errorlog.log.1";
inline constexpr std::int64_t kLimit = std::int64_t{64} * 1024;
} // namespace errorlog

class SupervisionLoop {
  public:
    SupervisionLoop(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers,
                    SharedState &shared)
        : platform_(platform), runner_(runner), gpio_(gpio), registers_(registers), shared_(shared),
          reference_(platform, runner), alarm_(runner, gpio, registers, shared, reference_),
          antenna_(platform, gpio, shared), factory_(platform, runner, gpio)
    {}

    // Exports and configures the indicator, test, button and antenna lines,
    // then reads TAI-UTC from the leap-second list.
    void setup();
    // One pass, without its final sleep.
    void pass();
    // The thread: set-up, "adjtimex -t 10082", then passes until the daemon
    // stops.
    void run();

    // Loop iterations so far, for the watchdog: it stops feeding systemd's
    // watchdog when this stays still for longer than kProgressBound.
    std::uint64_t progress() const
    {
        return progress_.load(std::memory_order_relaxed);
    }
    // The longest one pass may take with every command at its deadline: four
    // peer queries, six indicator echoes, the factory default's eleven
    // commands and its second, two register-2 updates (a read and a write
    // each, and a wait for the cycle's update of the lock), the alarm's
    // ntptime, and the pass's pause of 3 s.
    static constexpr Deadline kWorstPass =
        4 * kPeersDeadline + 17 * kShellDeadline + std::chrono::seconds{1} +
        2 * 2 * 2 * kRegisterToolDeadline + kNtptimeDeadline + std::chrono::seconds{3};
    static constexpr std::chrono::seconds kProgressBound{260};
    static_assert(kProgressBound >= kWorstPass + std::chrono::seconds{20});

  private:
    bool followReference();
    void logReference(Reference reference);

    Platform &platform_;
    Runner &runner_;
    Gpio &gpio_;
    Registers &registers_;
    SharedState &shared_;
    // Its checks, in the order of a pass.
    ReferenceWatch reference_;
    AlarmLogic alarm_;
    AntennaMonitor antenna_;
    FactoryDefault factory_;
    // The reference at the previous pass: a change is logged.
    Reference previousReference_ = Reference::NotYetAsked;
    std::atomic<std::uint64_t> progress_{0};
};

} // namespace zarvent
