#include "hardware/dac.h"

#include <utility>

#include "hardware/board_map.h"

namespace zarvent {

namespace {
constexpr unsigned kMaxCommand = 15;
constexpr unsigned kMaxValue = 65535;
} // namespace

Dac::Dac(Platform &platform, Gpio &gpio)
    : gpio_(gpio), clock_(platform, pin::kDacClock), select_(platform, pin::kDacSelect),
      data_(platform, pin::kDacData)
{}

void Dac::configureLines()
{
    for (const auto &[line, level] : {std::pair{pin::kDacClock, 0}, std::pair{pin::kDacSelect, 1},
                                      std::pair{pin::kDacData, 0}}) {
        gpio_.exportPin(line);
        gpio_.setDirectionOut(line);
        gpio_.setLevel(line, level);
    }
}

bool Dac::writeWord(unsigned command, unsigned value)
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
