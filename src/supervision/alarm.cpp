#include "supervision/alarm.h"

#include "hardware/board_map.h"
#include "hardware/gpio.h"
#include "hardware/registers.h"
#include "ntp/ntp_queries.h"
#include "state/shared_state.h"
#include "supervision/reference.h"

namespace zarvent {

void AlarmLogic::captureEventTime()
{
    // The same reading as the cycle's time step, into the event time. When
    // ntptime fails or prints something else, both times stay as they are;
    // the state changes all the same.
    if (const auto reading = readNtptime(runner_))
        shared_.setEvent(reading->dateTime);
}

void AlarmLogic::check()
{
    const bool reference = reference_.ask() != Reference::None;
    if (reference && gpio_.readLevelOrZero(pin::kAlarmInput) != 0) {
        episodeLatched_ = false;
        registers_.modifyControl(fpga::kReferenceValidBit, 0, PipeMode::Read);
        shared_.alarm = false;
        if (!clearedTimeKept_) {
            captureEventTime();
            clearedTimeKept_ = true;
        }
        gpio_.echoLevel(pin::kAlarmOn, 0);
        gpio_.echoLevel(pin::kAlarmOff, 1);
        return;
    }
    if (!episodeLatched_) {
        episodeLatched_ = true;
        registers_.modifyControl(0, fpga::kReferenceValidBit, PipeMode::Read);
    }
    const bool wasAlarm = shared_.alarm;
    clearedTimeKept_ = false;
    if (!wasAlarm) {
        captureEventTime();
        shared_.alarm = true;
    }
    gpio_.echoLevel(pin::kAlarmOn, 1);
    gpio_.echoLevel(pin::kAlarmOff, 0);
}

} // namespace zarvent
