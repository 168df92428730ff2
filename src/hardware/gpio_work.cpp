#include "hardware/gpio_work.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "hardware/parsers.h"
#include "hardware/runner.h"

namespace zarvent {

namespace {

std::string valuePath(std::string_view pin)
{
    return "/sys/class/gpio/gpio" + std::string(pin) + "/value";
}

std::string directionPath(std::string_view pin)
{
    return "/sys/class/gpio/gpio" + std::string(pin) + "/direction";
}

// The text and its terminating zero.
std::string_view withTerminator(const char *text)
{
    return {text, std::strlen(text) + 1};
}

std::optional<int> readValueFile(Platform &platform, int fd, bool atOffsetZero)
{
    std::array<char, 3> buffer{};
    const long got = atOffsetZero ? platform.readAt(fd, buffer, 0) : platform.read(fd, buffer);
    if (got <= 0)
        return std::nullopt;
    return parseLevel(std::string_view(buffer.data(), static_cast<std::size_t>(got)));
}

} // namespace

std::optional<int> parseLevel(std::string_view text)
{
    return parseDecimal(text);
}

int Gpio::writeFile(const std::string &path, int flags, std::string_view bytes)
{
    UniqueFd fd(platform_, platform_.open(path, flags));
    if (!fd.isValid())
        return -1;
    return static_cast<int>(platform_.write(fd.get(), bytes));
}

int Gpio::PinAddToWorkspace(std::string_view pin)
{
    const std::string text(pin);
    return writeFile("/sys/class/gpio/export", O_WRONLY, withTerminator(text.c_str()));
}

int Gpio::PinSetDirectionOut(std::string_view pin)
{
    return writeFile(directionPath(pin), O_RDWR, withTerminator("out"));
}

int Gpio::PinSetDirectionIn(std::string_view pin)
{
    return writeFile(directionPath(pin), O_RDWR, withTerminator("in"));
}

int Gpio::PinSetOutput(std::string_view pin, int value)
{
    return writeFile(valuePath(pin), O_RDWR, std::to_string(value));
}

int Gpio::PinGetInput(std::string_view pin)
{
    return readLevel(pin).value_or(0);
}

std::optional<int> Gpio::readLevel(std::string_view pin)
{
    UniqueFd fd(platform_, platform_.open(valuePath(pin), O_RDWR));
    if (!fd.isValid())
        return std::nullopt;
    return readValueFile(platform_, fd.get(), false);
}

int Gpio::GpioSetEdge(int gpio, std::string_view edge)
{
    const std::string path = "/sys/class/gpio/gpio" + std::to_string(gpio) + "/edge";
    const int fd = platform_.open(path, O_WRONLY);
    if (fd < 0) {
        const int error = errno;
        platform_.writeError("gpio/set-edge: " + std::string(std::strerror(error)) + "\n");
        return fd;
    }
    UniqueFd owner(platform_, fd);
    std::string text(edge);
    platform_.write(fd, std::string_view(text.c_str(), text.size() + 1));
    return 0;
}

void Gpio::echoLevel(int line, int level)
{
    runner_.run("echo " + std::to_string(level) + " > /sys/class/gpio/gpio" + std::to_string(line) +
                    "/value",
                PipeMode::Write);
}

GpioLine::GpioLine(Platform &platform, std::string pin)
    : platform_(platform), pin_(std::move(pin)), path_(valuePath(pin_))
{}

bool GpioLine::ensureOpen()
{
    if (!fd_.isValid())
        fd_ = UniqueFd(platform_, platform_.open(path_, O_RDWR));
    return fd_.isValid();
}

int GpioLine::read()
{
    if (!ensureOpen())
        return 0;
    const std::optional<int> level = readValueFile(platform_, fd_.get(), true);
    if (!level)
        fd_.reset(); // the line may have gone away: open it afresh next time
    return level.value_or(0);
}

int GpioLine::set(int value)
{
    if (!ensureOpen())
        return -1;
    const std::string text = std::to_string(value);
    const long done = platform_.writeAt(fd_.get(), text, 0);
    if (done < 0)
        fd_.reset();
    return static_cast<int>(done);
}

} // namespace zarvent
