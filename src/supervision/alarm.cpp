#include "supervision/alarm.h"

#include "cycle/handover.h"
#include "daemon/shared.h"
#include "hardware/gpio_work.h"
#include "hardware/registers.h"
#include "supervision/ThreadLED.h"

namespace zarvent {

void AlarmLogic::captureEventTime()
{
    // The same reading as the cycle's time step, into the event slot. When
    // ntptime fails or prints something else, both slots stay as they are;
    // the state changes all the same.
    ControlTime(runner_, shared_, co::kEvent);
}

void AlarmLogic::ControlAlarm()
{
    const bool reference = ControlRefclock(runner_) || ControlRefPPS(runner_);
    if (reference && gpio_.PinGetInput("176") != 0) {
        mutex = false;
        registers_.modifyRegister2(1, 0, PipeMode::Read);
        const std::uint8_t wasUptime = UptimeFlag;
        shared_.Alarm = 0;
        if (wasUptime == 0) {
            captureEventTime();
            UptimeFlag = 1;
        }
        gpio_.echoLevel(76, 0);
        gpio_.echoLevel(77, 1);
        return;
    }
    if (!mutex) {
        mutex = true;
        registers_.modifyRegister2(0, 1, PipeMode::Read);
    }
    const std::uint8_t wasAlarm = shared_.Alarm;
    UptimeFlag = 0;
    if (wasAlarm == 0) {
        captureEventTime();
        shared_.Alarm = 1;
    }
    gpio_.echoLevel(76, 1);
    gpio_.echoLevel(77, 0);
}

} // namespace zarvent
