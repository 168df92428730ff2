// TAI-UTC from the system's leap-second list (/leap-seconds.list, in the
// published format), read once when the supervision thread starts.
#pragma once

#include <cstdint>
#include <string_view>

namespace zarvent {

class Platform;
class Runner;

// The TAI-UTC difference of the last data line among the first 238 lines of
// the list; -1 when the list, the scratch file "temp" in the working
// directory or a command cannot be opened; 0 when that line holds no number
// at column 11.
std::int32_t readTaiOffset(Platform &platform, Runner &runner);

// The number at column 11 of a data line ("%i"), 0 when there is none.
std::int32_t leapOffsetOfLine(std::string_view line);

} // namespace zarvent
