#include "cycle/client.h"

#include "hardware/gpio_work.h"
#include "hardware/registers.h"

namespace zarvent {

namespace {
constexpr unsigned kFlashMicroseconds = 300;
} // namespace

void ClientIndicator::Service()
{
    gpio_.echoLevel(70, 0);
    gpio_.echoLevel(71, 0);
}

void ClientIndicator::ReadNtpCli()
{
    // Only the first data byte, the low byte, counts. A read that failed
    // counts as 0, so the indicator stays dark.
    const auto responses = registers_.read(reg::kRead26, 5, 2);
    if (responses && (*responses & 0xFF) != 0) {
        gpio_.echoLevel(70, 0);
        gpio_.echoLevel(71, 1);
        platform_.sleepMicroseconds(kFlashMicroseconds);
    }
    gpio_.echoLevel(70, 0);
    gpio_.echoLevel(71, 0);
}

} // namespace zarvent
