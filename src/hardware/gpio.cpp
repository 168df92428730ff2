#include "hardware/gpio.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

#include "hardware/parsers.h"
#include "hardware/runner.h"

namespace zarvent {

namespace {

std::string pinPath(GpioPin pin, const char *file)
{
    return "/sys/class/gpio/gpio" + pin.text() + "/" + file;
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

int Gpio::exportPin(GpioPin pin)
{
    const std::string text = pin.text();
    return writeFile("/sys/class/gpio/export", O_WRONLY, withTerminator(text.c_str()));
}

int Gpio::setDirectionOut(GpioPin pin)
{
    return writeFile(pinPath(pin, "direction"), O_RDWR, withTerminator("out"));
}

int Gpio::setDirectionIn(GpioPin pin)
{
    return writeFile(pinPath(pin, "direction"), O_RDWR, withTerminator("in"));
}

int Gpio::setLevel(GpioPin pin, int value)
{
    return writeFile(pinPath(pin, "value"), O_RDWR, std::to_string(value));
}

int Gpio::readLevelOrZero(GpioPin pin)
{
    return readLevel(pin).value_or(0);
}

std::optional<int> Gpio::readLevel(GpioPin pin)
{
    UniqueFd fd(platform_, platform_.open(pinPath(pin, "value"), O_RDWR));
    if (!fd.isValid())
        return std::nullopt;
    return readValueFile(platform_, fd.get(), false);
}

int Gpio::setEdge(GpioPin pin, std::string_view edge)
{
    const int fd = platform_.open(pinPath(pin, "edge"), O_WRONLY);
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

void Gpio::echoLevel(GpioPin pin, int level)
{
    runner_.run("echo " + std::to_string(level) + " > " + pinPath(pin, "value"), PipeMode::Write);
}

OpenPin::OpenPin(Platform &platform, GpioPin pin)
    : platform_(platform), path_(pinPath(pin, "value"))
{}

bool OpenPin::ensureOpen()
{
    if (!fd_.isValid())
        fd_ = UniqueFd(platform_, platform_.open(path_, O_RDWR));
    return fd_.isValid();
}

int OpenPin::read()
{
    if (!ensureOpen())
        return 0;
    const std::optional<int> level = readValueFile(platform_, fd_.get(), true);
    if (!level)
        fd_.reset(); // the line may have gone away: open it afresh next time
    return level.value_or(0);
}

int OpenPin::set(int value)
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
