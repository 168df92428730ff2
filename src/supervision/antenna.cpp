#include "supervision/antenna.h"

#include "hardware/board_map.h"
#include "hardware/gpio.h"
#include "platform/platform.h"
#include "state/shared_state.h"

namespace zarvent {

namespace {
constexpr std::int64_t kHoldOffSeconds = 4;
} // namespace

void AntennaMonitor::check()
{
    int flowing = gpio_.readLevelOrZero(pin::kAntennaOpen);
    int noShort = gpio_.readLevelOrZero(pin::kAntennaShort);
    int feed = gpio_.readLevelOrZero(pin::kAntennaFeed);
    shared_.antennaCode =
        static_cast<std::uint8_t>(((feed & 1) << 2) | ((noShort & 1) << 1) | (flowing & 1));
    // The indicator from a second reading of the three lines.
    flowing = gpio_.readLevelOrZero(pin::kAntennaOpen);
    noShort = gpio_.readLevelOrZero(pin::kAntennaShort);
    feed = gpio_.readLevelOrZero(pin::kAntennaFeed);
    if (flowing != 0 && noShort != 0 && feed != 0) {
        gpio_.echoLevel(pin::kAntennaBad, 0);
        gpio_.echoLevel(pin::kAntennaGood, 1);
    } else {
        gpio_.echoLevel(pin::kAntennaBad, 1);
        gpio_.echoLevel(pin::kAntennaGood, 0);
    }

    if (gpio_.readLevelOrZero(pin::kAntennaShort) != 0)
        return; // no short: the hold-off and the feed stay as they are
    gpio_.setLevel(pin::kAntennaFeed, 0);
    const std::int64_t seconds = platform_.realtimeNs() / 1'000'000'000;
    if (!heldOff_) {
        heldSince_ = seconds;
        heldOff_ = true;
        return;
    }
    // The difference in signed 32-bit seconds.
    if (static_cast<std::int32_t>(seconds - heldSince_) > kHoldOffSeconds) {
        heldOff_ = false;
        gpio_.setLevel(pin::kAntennaFeed, 1);
    }
}

} // namespace zarvent
