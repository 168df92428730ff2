// The alarm: free of alarm while ntpd follows the GPS reference (as system or
// PPS peer) and the board's alarm input reads 1, in alarm otherwise. Drives
// the alarm indicator, keeps the alarm flag and the time of the last change for
// the status page, and clears the reference-valid bit once per alarm.
#pragma once

namespace zarvent {

class Runner;
class Gpio;
class Registers;
class SharedState;
class ReferenceWatch;

class AlarmLogic {
  public:
    AlarmLogic(Runner &runner, Gpio &gpio, Registers &registers, SharedState &shared,
               ReferenceWatch &reference)
        : runner_(runner), gpio_(gpio), registers_(registers), shared_(shared),
          reference_(reference)
    {}

    // One pass's look at the reference and the alarm input.
    void check();

  private:
    void captureEventTime();

    Runner &runner_;
    Gpio &gpio_;
    Registers &registers_;
    SharedState &shared_;
    ReferenceWatch &reference_;
    // True once the time the alarm cleared has been recorded; its start value
    // keeps the cycle thread's start time on the page until the first alarm.
    bool clearedTimeKept_ = true;
    // The one-shot latch of an alarm episode: taken by its first pass, which
    // clears the reference-valid bit, released by every pass free of alarm.
    // A plain flag: only this thread uses it, and releasing a latch that is
    // not held must be harmless.
    bool episodeLatched_ = false;
};

} // namespace zarvent
