// The GPIO pin layer over sysfs (/sys/class/gpio), which names each line by
// its kernel number as decimal text.
//
// Gpio opens the sysfs file for each operation, performs one read or write and
// closes it again; it keeps no state and any thread may use it. OpenPin is the
// same protocol on one line whose value file its owner uses many times a
// second (the pulse line, the DAC's three lines): it keeps the descriptor open
// and reads and writes at offset 0, as sysfs wants, so the levels and their
// order on the line are the same while the 500 µs poll and the 74 writes of a
// DAC word cost no open and close each.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "hardware/board_map.h"
#include "platform/platform.h"

namespace zarvent {

class Runner;

class Gpio {
  public:
    Gpio(Platform &platform, Runner &runner) : platform_(platform), runner_(runner) {}

    // Writes the pin's number with its terminating zero to the export file; a
    // line already exported makes the write fail, which is ignored.
    int exportPin(GpioPin pin);
    // Writes "out" (4 bytes with the terminator) to the direction file.
    int setDirectionOut(GpioPin pin);
    // Writes "in" (3 bytes with the terminator) to the direction file.
    int setDirectionIn(GpioPin pin);
    // Writes the level as decimal text, no terminator, no newline.
    int setLevel(GpioPin pin, int value);
    // The line's level; a line that cannot be opened or read reads as 0.
    int readLevelOrZero(GpioPin pin);
    // The line's level, or nothing when it cannot be read: for the inputs
    // whose 0 starts an action (the indicator test, the factory default),
    // where a missing line must not pass for a pressed button.
    [[nodiscard]] std::optional<int> readLevel(GpioPin pin);
    // Writes the edge text with its terminator; "gpio/set-edge" on standard
    // error and a negative result when the edge file cannot be opened.
    int setEdge(GpioPin pin, std::string_view edge);
    // The indicator lines' convention: "echo L > /sys/class/gpio/gpioN/value"
    // run in mode "w".
    void echoLevel(GpioPin pin, int level);

  private:
    int writeFile(const std::string &path, int flags, std::string_view bytes);

    Platform &platform_;
    Runner &runner_;
};

// One line whose value file stays open while its owner lives. Used by one
// thread only.
class OpenPin {
  public:
    OpenPin(Platform &platform, GpioPin pin);

    // Gpio::readLevelOrZero on this line.
    int read();
    // Gpio::setLevel on this line.
    int set(int value);

  private:
    bool ensureOpen();

    Platform &platform_;
    std::string path_;
    UniqueFd fd_;
};

// The level text a value file gives ("0\n", "1\n"): its leading decimal
// number, or nothing when it does not begin with one.
[[nodiscard]] std::optional<int> parseLevel(std::string_view text);

} // namespace zarvent
