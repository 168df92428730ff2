// Which reference ntpd follows, from "ntpq -p": the GPS reference clock as
// system peer, as PPS peer, or neither. A query that gives no answer (killed
// at its deadline, or not started) says nothing either way: the last known
// reference stands for a while, so that one slow ntpq never turns a healthy
// board into an alarm, and then counts as lost, so that a dead ntpd never
// keeps the board claiming a reference.
#pragma once

#include <chrono>
#include <cstdint>

#include "hardware/runner.h"
#include "state/shared_state.h"

namespace zarvent {

class Platform;
class Runner;

class ReferenceWatch {
  public:
    // How long the last answer stands when the queries give none: a whole
    // pass whose four queries all hang to their deadline, and its pause, so
    // that one wedged ntpq is never taken for a lost reference; the next such
    // pass finds it lost.
    static constexpr std::int64_t kHoldNs =
        std::chrono::nanoseconds(4 * kPeersDeadline + std::chrono::seconds{30}).count();

    ReferenceWatch(Platform &platform, Runner &runner) : platform_(platform), runner_(runner) {}

    // Asks ntpd as the board always has, the system peer first and the PPS
    // peer only when the first query found none; the reference it follows.
    Reference ask();

  private:
    Platform &platform_;
    Runner &runner_;
    Reference lastKnown_ = Reference::None;
    std::int64_t knownAtNs_ = 0; // monotonic; 0 before the first answer
};

} // namespace zarvent
