#include "supervision/antenna.h"

#include "daemon/shared.h"
#include "hardware/gpio_work.h"
#include "platform/platform.h"

namespace zarvent {

namespace {
constexpr std::int64_t kHoldOffSeconds = 4;
} // namespace

void AntennaMonitor::ControlAntenna()
{
    int l86 = gpio_.PinGetInput("86");
    int l87 = gpio_.PinGetInput("87");
    int l85 = gpio_.PinGetInput("85");
    shared_.setByte(co::kAntenna,
                    static_cast<unsigned char>(((l85 & 1) << 2) | ((l87 & 1) << 1) | (l86 & 1)));

    l86 = gpio_.PinGetInput("86");
    l87 = gpio_.PinGetInput("87");
    l85 = gpio_.PinGetInput("85");
    if (l86 != 0 && l87 != 0 && l85 != 0) {
        gpio_.echoLevel(74, 0);
        gpio_.echoLevel(75, 1);
    } else {
        gpio_.echoLevel(74, 1);
        gpio_.echoLevel(75, 0);
    }

    if (gpio_.PinGetInput("87") != 0)
        return; // no short: the hold-off and line 85 stay as they are

    gpio_.PinSetOutput("85", 0);
    const std::int64_t seconds = platform_.realtimeNs() / 1'000'000'000;
    if (over == 0) {
        event = seconds;
        over = 1;
        return;
    }
    now_en = seconds;
    // The difference in signed 32-bit seconds.
    if (static_cast<std::int32_t>(now_en - event) > kHoldOffSeconds) {
        over = 0;
        gpio_.PinSetOutput("85", 1);
    }
}

} // namespace zarvent
