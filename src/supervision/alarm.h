// The alarm: free of alarm while ntpd follows the GPS reference (as system or
// PPS peer) and input line 176 reads 1, in alarm otherwise. Drives the alarm
// indicators 76/77, keeps `Alarm` and the time of the last change for the
// status page, and clears the reference-valid bit once per alarm.
#pragma once

#include <cstdint>

namespace zarvent {

class Runner;
class Gpio;
class Registers;
class SharedState;

class AlarmLogic {
  public:
    AlarmLogic(Runner &runner, Gpio &gpio, Registers &registers, SharedState &shared)
        : runner_(runner), gpio_(gpio), registers_(registers), shared_(shared)
    {}

    void ControlAlarm();

  private:
    void captureEventTime();

    Runner &runner_;
    Gpio &gpio_;
    Registers &registers_;
    SharedState &shared_;
    // 1 once the time the alarm cleared has been recorded; its start value
    // keeps the cycle thread's start time on the page until the first alarm.
    std::uint8_t UptimeFlag = 1;
    // The one-shot latch of an alarm episode: taken by its first pass, which
    // clears the reference-valid bit, released by every pass free of alarm.
    // A plain flag: only this thread uses it, and releasing a latch that is
    // not held must be harmless.
    bool mutex = false;
};

} // namespace zarvent
