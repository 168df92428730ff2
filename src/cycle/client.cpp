#include "cycle/client.h"

#include "hardware/board_map.h"
#include "hardware/gpio.h"
#include "hardware/registers.h"

namespace zarvent {

namespace {
constexpr unsigned kFlashMicroseconds = 300;
} // namespace

void ClientIndicator::switchOff()
{
    gpio_.echoLevel(pin::kClientOff, 0);
    gpio_.echoLevel(pin::kClientOn, 0);
}

void ClientIndicator::flashOnResponses()
{
    // Only the first data byte, the low byte, counts. A read that failed
    // counts as 0, so the indicator stays dark.
    const auto responses = registers_.readResponses();
    if (responses && (*responses & 0xFF) != 0) {
        gpio_.echoLevel(pin::kClientOff, 0);
        gpio_.echoLevel(pin::kClientOn, 1);
        platform_.sleepMicroseconds(kFlashMicroseconds);
    }
    switchOff();
}

} // namespace zarvent
