#include "hardware/dac.h"

namespace zarvent {

namespace {
constexpr unsigned kMaxCommand = 15;
constexpr unsigned kMaxValue = 65535;
} // namespace

Dac::Dac(Platform &platform, Gpio &gpio)
    : gpio_(gpio), clock_(platform, "96"), select_(platform, "106"), data_(platform, "118")
{}

void Dac::configureLines()
{
    gpio_.PinAddToWorkspace("96");
    gpio_.PinSetDirectionOut("96");
    gpio_.PinSetOutput("96", 0);
    gpio_.PinAddToWorkspace("106");
    gpio_.PinSetDirectionOut("106");
    gpio_.PinSetOutput("106", 1);
    gpio_.PinAddToWorkspace("118");
    gpio_.PinSetDirectionOut("118");
    gpio_.PinSetOutput("118", 0);
}

bool Dac::SPIWriteInt(unsigned command, unsigned value)
{
    // The centre code comes from a file; a value beyond 16 bits would spill
    // into the command bits, so it is clamped, and a command that does not fit
    // its four bits is not sent at all.
    if (command > kMaxCommand)
        return false;
    if (value > kMaxValue)
        value = kMaxValue;

    select_.set(0);
    unsigned word = (command << 20) | (value << 4);
    for (int bit = 0; bit < 24; ++bit) {
        clock_.set(1);
        data_.set(static_cast<int>((word >> 23) & 1u));
        clock_.set(0);
        word <<= 1;
    }
    select_.set(1);
    return true;
}

} // namespace zarvent
