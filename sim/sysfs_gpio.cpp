#include "sysfs_gpio.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string_view>

namespace zarvent::sim {

namespace {

// "/sys/class/gpio/gpioN/ATTR": the attribute's kind and N; Free when the
// path is no such attribute.
FdKind parseGpioPath(const std::string &path, int &line)
{
    constexpr std::string_view kPrefix = "/sys/class/gpio/gpio";
    if (path.compare(0, kPrefix.size(), kPrefix) != 0)
        return FdKind::Free;
    const char *digits = path.c_str() + kPrefix.size();
    char *end = nullptr;
    const long number = std::strtol(digits, &end, 10);
    if (end == digits || *end != '/')
        return FdKind::Free;
    line = static_cast<int>(number);
    const std::string_view attribute(end);
    if (attribute == "/value")
        return FdKind::Value;
    if (attribute == "/direction")
        return FdKind::Direction;
    if (attribute == "/edge")
        return FdKind::Edge;
    return FdKind::Free;
}

// Text written to a sysfs attribute: the kernel takes it up to a terminating
// zero or newline.
std::string attributeText(std::span<const char> bytes)
{
    std::string_view text(bytes.data(), std::min<std::size_t>(bytes.size(), 63));
    text = text.substr(0, text.find('\0'));
    return std::string(text.substr(0, text.find('\n')));
}

} // namespace

SysfsGpio::SysfsGpio(BoardMutex &mutex, BoardClock &clock, VirtualDescriptors &descriptors)
    : mutex_(mutex), clock_(clock), descriptors_(descriptors)
{}

SysfsGpio::Line *SysfsGpio::lineLocked(long number)
{
    return number >= 0 && number < kLines ? &lines_[static_cast<std::size_t>(number)] : nullptr;
}

const SysfsGpio::Line *SysfsGpio::lineLocked(long number) const
{
    return number >= 0 && number < kLines ? &lines_[static_cast<std::size_t>(number)] : nullptr;
}

void SysfsGpio::observeDacLocked(int number, int level)
{
    if (number == 106) {
        if (level == 0 && !dac_.selected) {
            dac_ = DacDecoder{true, dac_.clock, dac_.data, 0, 0};
        } else if (level == 1 && dac_.selected) {
            dac_.selected = false;
            dacWords_.push_back(
                {clock_.nowUsLocked(), dac_.word & 0xFFFFFFu, dac_.bits, dac_.bits != 24});
        }
    } else if (number == 118) {
        dac_.data = level;
    } else if (number == 96) {
        // The DAC takes the data line on the falling clock edge.
        if (dac_.selected && dac_.clock == 1 && level == 0) {
            dac_.word = (dac_.word << 1) | static_cast<std::uint32_t>(dac_.data & 1);
            dac_.bits++;
        }
        dac_.clock = level;
    }
}

int SysfsGpio::driveLocked(int number, bool high, bool byShell)
{
    Line *g = lineLocked(number);
    if (g == nullptr || !g->exported)
        return ENOENT;
    if (!g->output)
        return EPERM;
    g->level = high ? 1 : 0;
    levels_.push_back({clock_.nowUsLocked(), number, g->level, byShell});
    observeDacLocked(number, g->level);
    return 0;
}

int SysfsGpio::readLevelLocked(Line &g)
{
    if (g.output)
        return g.level;
    if (!g.queued.empty()) {
        const int level = g.queued.front();
        g.queued.pop_front();
        return level;
    }
    if (g.pulseHighUs > 0)
        return clock_.nowUsLocked() % g.pulsePeriodUs < g.pulseHighUs ? 1 : 0;
    return g.level;
}

std::optional<int> SysfsGpio::valueFileLine(const std::string &path)
{
    int number = 0;
    if (parseGpioPath(path, number) != FdKind::Value)
        return std::nullopt;
    return number;
}

std::optional<int> SysfsGpio::openLocked(const std::string &path)
{
    if (path == "/sys/class/gpio/export")
        return descriptors_.openLocked(FdKind::Export, 0);
    int number = 0;
    const FdKind kind = parseGpioPath(path, number);
    if (kind == FdKind::Free)
        return std::nullopt;
    const Line *g = lineLocked(number);
    if (g == nullptr || !g->exported) {
        errno = ENOENT;
        return -1;
    }
    return descriptors_.openLocked(kind, number);
}

std::int64_t SysfsGpio::takeHeldReadUs(int fd)
{
    const BoardLocker lock(mutex_);
    const VirtualFd *v = descriptors_.findLocked(fd);
    if (v == nullptr || v->kind != FdKind::Value)
        return 0;
    const auto held = heldReads_.find(v->line);
    if (held == heldReads_.end())
        return 0;
    const std::int64_t us = held->second;
    heldReads_.erase(held);
    return us;
}

long SysfsGpio::writeLocked(const VirtualFd &v, std::span<const char> from)
{
    const std::string text = attributeText(from);
    Line &g = lines_[static_cast<std::size_t>(v.line)];
    int error = 0;
    switch (v.kind) {
    case FdKind::Export: {
        char *end = nullptr;
        const long number = std::strtol(text.c_str(), &end, 10);
        Line *e = lineLocked(number);
        if (end == text.c_str() || *end != '\0' || e == nullptr) {
            error = EINVAL;
        } else if (e->exported) {
            error = EBUSY;
        } else {
            e->exported = true;
            e->output = false;
            e->level = 0;
            e->edge.clear();
        }
        break;
    }
    case FdKind::Direction:
        if (text == "in") {
            g.output = false;
        } else if (text == "out" || text == "low") {
            g.output = true;
            g.level = 0;
        } else if (text == "high") {
            g.output = true;
            g.level = 1;
        } else {
            error = EINVAL;
        }
        break;
    case FdKind::Value: {
        g.lastWrite.assign(from.data(), std::min<std::size_t>(from.size(), 16));
        char *end = nullptr;
        const long value = std::strtol(text.c_str(), &end, 10);
        error = end == text.c_str() ? EINVAL : driveLocked(v.line, value != 0, false);
        break;
    }
    case FdKind::Edge:
        if (text == "none" || text == "rising" || text == "falling" || text == "both")
            g.edge = text;
        else
            error = EINVAL;
        break;
    case FdKind::Free:
    case FdKind::Spi:
        error = EINVAL;
        break;
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    return static_cast<long>(from.size());
}

long SysfsGpio::readLocked(const VirtualFd &v, std::span<char> into)
{
    Line &g = lines_[static_cast<std::size_t>(v.line)];
    std::string text;
    switch (v.kind) {
    case FdKind::Value:
        text = std::to_string(readLevelLocked(g)) + "\n";
        break;
    case FdKind::Direction:
        text = g.output ? "out\n" : "in\n";
        break;
    case FdKind::Edge:
        text = (g.edge.empty() ? std::string("none") : g.edge) + "\n";
        break;
    case FdKind::Free:
    case FdKind::Export:
    case FdKind::Spi:
        errno = EINVAL;
        return -1;
    }
    const std::size_t count = std::min(text.size(), into.size());
    std::copy_n(text.data(), count, into.data());
    return static_cast<long>(count);
}

void SysfsGpio::dropHistoryLocked()
{
    levels_.clear();
    levels_.shrink_to_fit();
    dacWords_.clear();
    dacWords_.shrink_to_fit();
}

// ---- set-up and inspection

void SysfsGpio::holdNextRead(int line, std::int64_t us)
{
    const BoardLocker lock(mutex_);
    heldReads_[line] = us;
}

void SysfsGpio::provideLine(int line, bool output, int level)
{
    const BoardLocker lock(mutex_);
    if (Line *g = lineLocked(line)) {
        g->exported = true;
        g->output = output;
        g->level = level;
    }
}

void SysfsGpio::setInput(int line, int level)
{
    const BoardLocker lock(mutex_);
    if (Line *g = lineLocked(line))
        g->level = level;
}

void SysfsGpio::queueReads(int line, std::vector<int> levels)
{
    const BoardLocker lock(mutex_);
    if (Line *g = lineLocked(line))
        g->queued.assign(levels.begin(), levels.end());
}

void SysfsGpio::setPulse(int line, std::int64_t highUs, std::int64_t periodUs)
{
    const BoardLocker lock(mutex_);
    if (Line *g = lineLocked(line)) {
        g->pulseHighUs = highUs;
        g->pulsePeriodUs = periodUs > 0 ? periodUs : 1000000;
    }
}

int SysfsGpio::level(int line) const
{
    const BoardLocker lock(mutex_);
    const Line *g = lineLocked(line);
    return g != nullptr && g->exported ? g->level : -1;
}

bool SysfsGpio::exported(int line) const
{
    const BoardLocker lock(mutex_);
    const Line *g = lineLocked(line);
    return g != nullptr && g->exported;
}

std::string SysfsGpio::direction(int line) const
{
    const BoardLocker lock(mutex_);
    const Line *g = lineLocked(line);
    if (g == nullptr || !g->exported)
        return "";
    return g->output ? "out" : "in";
}

std::string SysfsGpio::edge(int line) const
{
    const BoardLocker lock(mutex_);
    const Line *g = lineLocked(line);
    return g != nullptr ? g->edge : "";
}

std::vector<LevelRecord> SysfsGpio::levels() const
{
    const BoardLocker lock(mutex_);
    return levels_;
}

std::string SysfsGpio::lastWrite(int line) const
{
    const BoardLocker lock(mutex_);
    const Line *g = lineLocked(line);
    return g != nullptr ? g->lastWrite : "";
}

std::vector<DacWord> SysfsGpio::dacWords(std::size_t from) const
{
    const BoardLocker lock(mutex_);
    if (from >= dacWords_.size())
        return {};
    return {dacWords_.data() + from, dacWords_.data() + dacWords_.size()};
}

} // namespace zarvent::sim
