#include "virtual_board.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>

#include "scheduler.h"
#include "text.h"

namespace zarvent::sim {

namespace fs = std::filesystem;

namespace {

constexpr const char *kWorkDir = "/usr/bin/Zarvent";
constexpr int kLines = 256;
constexpr int kFdBase = 1000; // far above the host's own descriptors
constexpr int kFds = 64;
constexpr std::size_t kSpiFrame = 1410;
constexpr std::int64_t kLockRetryUs = 50;

enum class FdKind { Free, Export, Direction, Value, Edge, Spi };

struct VirtualFd {
    FdKind kind = FdKind::Free;
    int line = 0;
};

struct GpioLine {
    bool exported = false;
    bool output = false;
    int level = 0;
    std::string edge;
    std::deque<int> queued;
    std::int64_t pulseHighUs = 0;
    std::int64_t pulsePeriodUs = 1000000;
    std::size_t reads = 0;
    std::string lastWrite;
};

struct Rule {
    std::string line;
    std::string output;
    bool failStart = false;
    bool once = false;
    bool used = false;
};

// The DAC's serial input as the chip sees it.
struct DacDecoder {
    bool selected = false;
    int clock = 0;
    int data = 0;
    int bits = 0;
    std::uint32_t word = 0;
};

// A command's output, captured by the model when the command ran.
class ModelledCommand final : public Command {
  public:
    ModelledCommand(std::string output, int status, bool timedOut = false)
        : output_(std::move(output)), status_(status), timedOut_(timedOut)
    {}
    long read(std::span<char> into) override
    {
        const std::size_t count = std::min(into.size(), output_.size() - position_);
        std::copy_n(output_.data() + position_, count, into.data());
        position_ += count;
        return static_cast<long>(count);
    }
    int wait() override
    {
        return status_;
    }
    bool timedOut() const override
    {
        return timedOut_;
    }

  private:
    std::string output_;
    std::size_t position_ = 0;
    int status_ = 0;
    bool timedOut_ = false;
};

// "/sys/class/gpio/gpioN/ATTR": the attribute's kind and N; Free when the
// path is no such attribute.
FdKind parseGpioPath(const std::string &path, int &line)
{
    constexpr std::string_view prefix = "/sys/class/gpio/gpio";
    if (path.compare(0, prefix.size(), prefix) != 0)
        return FdKind::Free;
    const char *digits = path.c_str() + prefix.size();
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

// The board path with relative paths resolved against the working directory.
std::string absolutePath(const std::string &boardPath)
{
    const std::string path =
        boardPath.starts_with('/') ? boardPath : std::string(kWorkDir) + "/" + boardPath;
    std::string normal = fs::path(path).lexically_normal().generic_string();
    if (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal;
}

bool opensForWriting(int flags)
{
    return (flags & O_ACCMODE) == O_WRONLY || (flags & O_ACCMODE) == O_RDWR ||
           (flags & (O_CREAT | O_TRUNC | O_APPEND)) != 0;
}

std::optional<std::string> readHostFile(const std::string &hostPath)
{
    std::ifstream in(hostPath, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream content;
    content << in.rdbuf();
    return std::move(content).str();
}

bool writeHostFile(const std::string &hostPath, const std::string &content)
{
    std::ofstream out(hostPath, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

void makeWritable(const fs::path &dir)
{
    // A directory made read-only must be opened up before its tree is removed.
    std::error_code error;
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::add, error);
    for (const auto &entry : fs::directory_iterator(dir, error))
        if (entry.is_directory(error) && !entry.is_symlink(error))
            makeWritable(entry.path());
}

long intOf(const std::string &text)
{
    return std::strtol(text.c_str(), nullptr, 10);
}

const char *const kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

} // namespace

struct VirtualBoard::State {
    std::string root;
    bool temporary = false;

    // Guards everything below. Never held while a register hook runs or
    // while a thread waits for virtual time.
    mutable std::mutex mutex;
    std::int64_t nowUs = 0;
    std::int64_t clockStepUs = 0; // the system clock against true time
    std::map<std::string, ToolFault> toolFaults;
    std::uint32_t junk = 12345;                         // the faulty tools' pseudo-random bytes
    std::vector<std::pair<int, std::uint64_t>> printed; // register values printed lately
    int unreadWrites = 0;
    bool loaderBroken = false;
    // The RAM disk's usage as last counted. Counting walks every file on it
    // (a thousand chart files); the daemon asks once a steered second, so the
    // count is kept for a minute of board time, and counted again at once
    // after the daemon removes a file or the disk is made anew.
    std::optional<FileSystemUsage> ramUsage;
    std::int64_t ramUsageAtUs = 0;
    bool ramNoSpace = false;
    bool ramNoInodes = false;
    std::set<int> ramFds;
    std::set<std::string> written;
    std::int64_t commandCostUs = 0;
    Scheduler *scheduler = nullptr;

    std::vector<CommandRecord> commands;
    std::vector<Rule> rules;
    std::vector<std::string> absentTools;

    std::array<std::uint64_t, 64> registers{};
    bool configured = true;
    int loaderRuns = 0;
    RegisterToolFault toolFault = RegisterToolFault::None;
    RegisterReadHook onRead;
    RegisterWriteHook onWrite;

    Peer peer = Peer::System;
    char rmc = 'A';
    int tai = 37;
    std::string eth0;
    bool mounted = false;
    std::uint64_t ramBlocks = 8192;
    std::uint64_t ramInodes = 2048;

    std::array<GpioLine, kLines> gpio;
    std::vector<LevelRecord> levels;
    DacDecoder dac;
    std::vector<DacWord> dacWords;
    std::array<VirtualFd, kFds> fds;

    bool spiPresent = true;
    std::array<bool, 6> spiFail{};
    std::array<std::uint8_t, kSpiFrame> spiReply{};
    int spiExchanges = 0;
    SpiRecord spiLast;
    std::uint8_t spiMode = 0;
    std::uint8_t spiBits = 8;

    std::vector<std::string> readOnly;
    std::map<std::string, int> failedOpens;
    std::string errorOutput;
    bool aborted = false;

    std::vector<std::function<void()>> threadEntries;
    std::size_t threadsStarted = 0;
    std::vector<std::thread> threads;
    std::multiset<std::thread::id> daemonThreads;
    bool stopped = false;
    bool stopRequested = false;
    std::int64_t stopRequestedAtUs = 0;
    std::optional<std::chrono::microseconds> watchdog;
    std::vector<std::pair<std::int64_t, std::string>> notifications;
    std::map<int, std::int64_t> heldReads; // line: virtual time its next read blocks

    // ---- the models (the functions named ...Locked expect mutex held)
    std::string hostPath(const std::string &boardPath) const
    {
        return boardPath.starts_with('/') ? root + boardPath : root + kWorkDir + "/" + boardPath;
    }

    bool readOnlyLocked(const std::string &boardPath) const
    {
        const std::string path = absolutePath(boardPath);
        return std::any_of(readOnly.begin(), readOnly.end(), [&](const std::string &dir) {
            return path == dir || path.starts_with(dir + "/");
        });
    }

    // After stop() every call of the seam by a daemon thread ends it.
    void checkRunning() const
    {
        const std::lock_guard lock(mutex);
        if (stopped && daemonThreads.contains(std::this_thread::get_id()))
            throw SimulationEnded{};
    }

    void passTime(std::int64_t us)
    {
        std::unique_lock lock(mutex);
        if (Scheduler *s = scheduler) {
            lock.unlock();
            s->wait(us);
        } else {
            nowUs += us;
        }
    }

    GpioLine *line(long number)
    {
        return number >= 0 && number < kLines ? &gpio[static_cast<std::size_t>(number)] : nullptr;
    }

    void observeDacLocked(int number, int level)
    {
        if (number == 106) {
            if (level == 0 && !dac.selected) {
                dac = DacDecoder{true, dac.clock, dac.data, 0, 0};
            } else if (level == 1 && dac.selected) {
                dac.selected = false;
                dacWords.push_back({nowUs, dac.word & 0xFFFFFFu, dac.bits, dac.bits != 24});
            }
        } else if (number == 118) {
            dac.data = level;
        } else if (number == 96) {
            // The DAC takes the data line on the falling clock edge.
            if (dac.selected && dac.clock == 1 && level == 0) {
                dac.word = (dac.word << 1) | static_cast<std::uint32_t>(dac.data & 1);
                dac.bits++;
            }
            dac.clock = level;
        }
    }

    // A level written to a line's value file; 0, or the errno the kernel sets.
    int driveLocked(int number, bool high, bool byShell)
    {
        GpioLine *g = line(number);
        if (g == nullptr || !g->exported)
            return ENOENT;
        if (!g->output)
            return EPERM;
        g->level = high ? 1 : 0;
        levels.push_back({nowUs, number, g->level, byShell});
        observeDacLocked(number, g->level);
        return 0;
    }

    int readLevelLocked(GpioLine &g)
    {
        g.reads++;
        if (g.output)
            return g.level;
        if (!g.queued.empty()) {
            const int level = g.queued.front();
            g.queued.pop_front();
            return level;
        }
        if (g.pulseHighUs > 0)
            return nowUs % g.pulsePeriodUs < g.pulseHighUs ? 1 : 0;
        return g.level;
    }

    int newFdLocked(FdKind kind, int number)
    {
        for (std::size_t i = 0; i < fds.size(); i++) {
            if (fds[i].kind == FdKind::Free) {
                fds[i] = {kind, number};
                return kFdBase + static_cast<int>(i);
            }
        }
        errno = EMFILE;
        return -1;
    }

    // A read of a line's value that was asked to block does so, outside the
    // lock, before it is answered.
    void holdReadIfAsked(int fd)
    {
        std::int64_t hold = 0;
        {
            const std::lock_guard lock(mutex);
            const VirtualFd *v = fdLocked(fd);
            if (v != nullptr && v->kind == FdKind::Value)
                if (const auto held = heldReads.find(v->line); held != heldReads.end()) {
                    hold = held->second;
                    heldReads.erase(held);
                }
        }
        if (hold > 0)
            passTime(hold);
    }

    VirtualFd *fdLocked(int fd)
    {
        if (fd < kFdBase || fd >= kFdBase + kFds)
            return nullptr;
        VirtualFd &v = fds[static_cast<std::size_t>(fd - kFdBase)];
        return v.kind == FdKind::Free ? nullptr : &v;
    }

    // Writes to a sysfs attribute; the count written or -1 with errno.
    long writeAttributeLocked(VirtualFd &v, std::span<const char> from)
    {
        const std::string text = attributeText(from);
        GpioLine &g = gpio[static_cast<std::size_t>(v.line)];
        int error = 0;
        switch (v.kind) {
        case FdKind::Export: {
            char *end = nullptr;
            const long number = std::strtol(text.c_str(), &end, 10);
            GpioLine *e = line(number);
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

    // Reads a sysfs attribute from its start; -1 with errno.
    long readAttributeLocked(VirtualFd &v, std::span<char> into)
    {
        GpioLine &g = gpio[static_cast<std::size_t>(v.line)];
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

    // ---- commands

    // The rule that answers a line: the first unused one-time answer, else
    // the last standing rule.
    Rule *ruleLocked(const std::string &commandLine)
    {
        for (Rule &r : rules)
            if (r.once && !r.used && r.line == commandLine)
                return &r;
        for (auto r = rules.rbegin(); r != rules.rend(); ++r)
            if (!r->once && r->line == commandLine)
                return &*r;
        return nullptr;
    }

    bool absentLocked(const std::string &program) const
    {
        const std::size_t slash = program.rfind('/');
        const std::string base = slash == std::string::npos ? program : program.substr(slash + 1);
        return std::find(absentTools.begin(), absentTools.end(), base) != absentTools.end();
    }

    // spiWrite -m MODE -l LENGTH -d COUNT REG [BYTES...]: five lines, the
    // fifth the bytes clocked back from the FPGA.
    void spiWriteLocked(std::unique_lock<std::mutex> &lock, const std::vector<std::string> &w,
                        const std::string &commandLine, std::string &out)
    {
        const std::size_t nw = w.size();
        int m = -1, l = -1, d = -1;
        std::size_t i = 1;
        while (i + 1 < nw && w[i][0] == '-') {
            const int v = static_cast<int>(intOf(w[i + 1]));
            if (w[i] == "-m")
                m = v;
            else if (w[i] == "-l")
                l = v;
            else if (w[i] == "-d")
                d = v;
            i += 2;
        }
        if (i >= nw || m < 0 || d < 0 || d > 8) {
            out += "usage: spiWrite -m mode -l length -d count register [bytes]\n";
            return;
        }
        int reg = static_cast<int>(intOf(w[i++]));
        if (reg < 0 || reg >= 64)
            reg = 0;
        const auto r = static_cast<std::size_t>(reg);
        const int count = d;
        if (toolFault == RegisterToolFault::Garbage) {
            appendf(out, "\x01\x7f garbage %d\n###\n\n\xff\xfe\n", reg);
            out += "AA AA ZZ \x80\x81 ?? xyz\n";
            return;
        }
        if (toolFault == RegisterToolFault::Short) {
            appendf(out, "spiWrite: mode %d length %d data %d\nregister %d\n", m, l, d, reg);
            return;
        }
        appendf(out, "spiWrite: mode %d length %d data %d\n", m, l, d);
        appendf(out, "register %d\n", reg);
        out += "tx:";
        for (std::size_t k = i - 1; k < nw; k++)
            out += " " + w[k];
        out += "\ntransfer complete\n";
        if (m == 0) {
            if (onRead) {
                const RegisterReadHook hook = onRead;
                lock.unlock();
                hook(reg);
                lock.lock();
            }
            if (!configured) {
                out += "FF FF";
                for (int k = 0; k < count; k++)
                    out += " FF";
                out += "\n";
                return;
            }
            out += "AA AA";
            for (int k = 0; k < count; k++)
                appendf(out, " %02X", static_cast<unsigned>((registers[r] >> (8 * k)) & 0xFF));
            out += "\n";
            if (printed.size() >= 32)
                printed.erase(printed.begin());
            printed.emplace_back(reg, registers[r]);
            return;
        }
        if (reg == 1 || reg == 2) {
            const bool fromRegister =
                std::any_of(printed.begin(), printed.end(), [&](const auto &p) {
                    return (p.first == 2 || p.first == 48) &&
                           (p.second & ~std::uint64_t{7}) ==
                               (value(w, i, count) & ~std::uint64_t{7});
                });
            unreadWrites += fromRegister ? 0 : 1;
        }
        // An FPGA without its bitstream takes nothing in.
        if (!configured) {
            out += "FF FF";
            for (int k = 0; k < count; k++)
                out += " FF";
            out += "\n";
            return;
        }
        const std::uint64_t data = value(w, i, count);
        registers[r] = data;
        if (onWrite) {
            const RegisterWriteHook hook = onWrite;
            lock.unlock();
            hook(reg, data, count, commandLine);
            lock.lock();
        }
        out += configured ? "AA AA" : "FF FF";
        for (int k = 0; k < count; k++)
            out += configured ? " A5" : " FF";
        out += "\n";
    }

    // The bytes of a register write, the first the least significant.
    static std::uint64_t value(const std::vector<std::string> &w, std::size_t first, int count)
    {
        std::uint64_t v = 0;
        for (std::size_t k = 0; k < static_cast<std::size_t>(count) && first + k < w.size(); k++)
            v |= (std::strtoull(w[first + k].c_str(), nullptr, 10) & 0xFF) << (8 * k);
        return v;
    }

    std::uint8_t junkByte()
    {
        junk ^= junk << 13;
        junk ^= junk >> 17;
        junk ^= junk << 5;
        return static_cast<std::uint8_t>(junk >> 24);
    }

    // A faulty program's output in place of out; its exit status.
    int misbehaveLocked(ToolFault fault, const std::string &program, std::string &out)
    {
        constexpr std::string_view kAlnum =
            "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
        switch (fault) {
        case ToolFault::None:
        case ToolFault::Slow:
        case ToolFault::Hang:
            return 0;
        case ToolFault::Empty:
            out.clear();
            return 0;
        case ToolFault::Short:
            out.resize(out.size() / 2);
            return 0;
        case ToolFault::Garbage:
            for (char &c : out)
                if (std::isalnum(static_cast<unsigned char>(c)) != 0)
                    c = kAlnum[junkByte() % kAlnum.size()];
            return 0;
        case ToolFault::Error:
            out = program + ": cannot open /dev/spidev2.0: Device or resource busy\n";
            return 1 << 8;
        case ToolFault::Overlong:
            std::replace(out.begin(), out.end(), '\n', ' ');
            out.append(8192, 'x');
            return 0;
        case ToolFault::Binary:
            out.resize(600);
            for (char &c : out)
                c = static_cast<char>(junkByte() % 4 == 0 ? 0 : junkByte());
            return 0;
        case ToolFault::ExitStatus:
            return 1 << 8;
        }
        return 0;
    }

    void ntpqPeersLocked(const std::string &commandLine, std::string &out) const
    {
        std::string all =
            "     remote           refid      st t when poll reach   delay   offset  jitter\n"
            "==============================================================================\n";
        if (peer == Peer::System || peer == Peer::Both)
            all += "*GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   "
                   "0.003\n";
        else if (peer == Peer::Pps)
            all += "oGPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000    0.000   "
                   "0.004\n";
        else
            all += " GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   "
                   "0.003\n";
        if (peer == Peer::Both)
            all += "oGPS_NMEA(1)     .PPS.            0 l    -    8  377    0.000    0.000   "
                   "0.004\n";
        all += "+darwin.kenyonra 127.67.113.92    2 u   50   64  377   28.478    4.232   0.953\n";
        // A pipeline into grep is one command for the model.
        std::string pattern;
        if (commandLine.find("grep '*G'") != std::string::npos)
            pattern = "*G";
        else if (commandLine.find("grep 'oG'") != std::string::npos)
            pattern = "oG";
        for (const std::string &row : splitWords(all, "\n", SIZE_MAX))
            if (pattern.empty() || row.find(pattern) != std::string::npos)
                out += row + "\n";
    }

    // "echo L > /sys/class/gpio/gpioN/value", or echo into a plain file.
    void echoLocked(const std::string &commandLine)
    {
        const std::size_t gt = commandLine.find('>');
        if (gt == std::string::npos)
            return;
        std::string value = gt > 5 ? commandLine.substr(5, std::min<std::size_t>(gt - 5, 63)) : "";
        while (!value.empty() && value.back() == ' ')
            value.pop_back();
        std::size_t start = gt + 1;
        while (start < commandLine.size() && commandLine[start] == ' ')
            start++;
        const std::string target = commandLine.substr(start);
        int number = 0;
        if (parseGpioPath(target, number) == FdKind::Value) {
            // The shell reports a refused write on its standard error only.
            driveLocked(number, static_cast<int>(intOf(value)) != 0, true);
            return;
        }
        if (!readOnlyLocked(target))
            writeHostFile(hostPath(target), value + "\n");
    }

    // One simple command (no ';'): its effect on the board and its output.
    void runSimpleLocked(std::unique_lock<std::mutex> &lock, const std::string &commandLine,
                         std::string &out)
    {
        const std::vector<std::string> w = splitWords(commandLine, " \t\n");
        const std::size_t nw = w.size();
        if (nw == 0 || absentLocked(w[0]))
            return;
        const std::string &program = w[0];
        std::error_code error;
        if (program == "./spiWrite" || program == std::string(kWorkDir) + "/spiWrite") {
            spiWriteLocked(lock, w, commandLine, out);
        } else if (program == "./wrFPGA") {
            loaderRuns++;
            struct stat st {};
            if (nw >= 3 && ::stat(hostPath(w[2]).c_str(), &st) == 0 && !loaderBroken)
                configured = true;
            appendf(out, "wrFPGA: loaded %s\n", nw >= 3 ? w[2].c_str() : "");
        } else if (program == "ntptime") {
            out += formatNtptime(nowUs + clockStepUs, tai);
        } else if (program == "ntpq") {
            if (nw >= 3 && w[1] == "-c" && w[2] == "clockvar")
                out += formatClockvar(nowUs + clockStepUs, rmc);
            else if (nw >= 2 && w[1] == "-p")
                ntpqPeersLocked(commandLine, out);
        } else if (program == "echo") {
            echoLocked(commandLine);
        } else if (program == "rm") {
            for (std::size_t i = 1; i < nw; i++)
                if (w[i][0] != '-' && !readOnlyLocked(w[i]))
                    ::unlink(hostPath(w[i]).c_str());
        } else if (program == "touch") {
            for (std::size_t i = 1; i < nw; i++) {
                if (readOnlyLocked(w[i]))
                    continue;
                const int fd = ::open(hostPath(w[i]).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
                if (fd >= 0)
                    ::close(fd);
            }
        } else if (program == "mkdir") {
            bool parents = false;
            for (std::size_t i = 1; i < nw; i++) {
                if (w[i] == "-p")
                    parents = true;
                else if (parents)
                    fs::create_directories(hostPath(w[i]), error);
                else
                    ::mkdir(hostPath(w[i]).c_str(), 0755);
            }
        } else if (program == "mv") {
            std::size_t i = 1;
            while (i < nw && w[i][0] == '-')
                i++;
            if (i + 1 < nw && !readOnlyLocked(w[i]) && !readOnlyLocked(w[i + 1]))
                std::rename(hostPath(w[i]).c_str(), hostPath(w[i + 1]).c_str());
        } else if (program == "cp") {
            if (nw >= 3 && !readOnlyLocked(w[2]))
                if (const auto data = readHostFile(hostPath(w[1])))
                    writeHostFile(hostPath(w[2]), *data);
        } else if (program == "tail") {
            if (nw >= 4 && w[1] == "-n" && w[2] == "1")
                tailLastLineLocked(w[3], out);
        } else if (program == "df") {
            if (mounted && commandLine.find("grep ramcache") != std::string::npos)
                out += "/dev/ram1                 7.7M     14.0K      7.3M   0% /ramcache\n";
        } else if (program == "mount") {
            if (nw >= 3 && w[1] == "/dev/ram1" && w[2] == "/ramcache") {
                fs::create_directories(hostPath("/ramcache"), error);
                mounted = true;
                ramUsage.reset();
            }
        } else if (program == "ifconfig") {
            if (nw >= 5 && w[1] == "eth0" && w[3] == "netmask") {
                int bits = 0;
                unsigned a = 0, b = 0, c = 0, d = 0;
                if (std::sscanf(w[4].c_str(), "%u.%u.%u.%u", &a, &b, &c, &d) == 4) {
                    std::uint32_t mask = (a << 24) | (b << 16) | (c << 8) | d;
                    for (; mask & 0x80000000u; mask <<= 1)
                        bits++;
                }
                eth0 = w[2] + "/" + std::to_string(bits);
            }
        }
        // mkfs, agetty, mversion, adjtimex, cd and anything else: recorded only.
    }

    void tailLastLineLocked(const std::string &boardPath, std::string &out) const
    {
        const auto data = readHostFile(hostPath(boardPath));
        if (!data || data->empty())
            return;
        std::size_t end = data->size();
        if ((*data)[end - 1] == '\n')
            end--;
        std::size_t start = end;
        while (start > 0 && (*data)[start - 1] != '\n')
            start--;
        const std::string last = data->substr(start, end - start);
        out += last.substr(0, last.find('\0')) + "\n";
    }

    // A command line as the shell takes it: trailing newlines, blanks and
    // '&' dropped, then each ';'-separated command in turn.
    void runLineLocked(std::unique_lock<std::mutex> &lock, const std::string &commandLine,
                       std::string &out)
    {
        std::string text = commandLine;
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '&'))
            text.pop_back();
        for (const std::string &part : splitWords(text, ";", SIZE_MAX)) {
            const std::size_t start = part.find_first_not_of(' ');
            runSimpleLocked(lock, start == std::string::npos ? "" : part.substr(start), out);
        }
    }

    // The RAM disk as mkfs made it, with what the files under it take.
    FileSystemUsage ramDiskUsageLocked() const
    {
        std::uint64_t usedBlocks = 600; // superblock, group descriptors, bitmaps, inode table
        std::uint64_t usedInodes = 11;  // the reserved ones, the root and lost+found
        std::error_code error;
        for (auto it = fs::recursive_directory_iterator(hostPath("/ramcache"), error);
             !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
            usedInodes++;
            if (it->is_regular_file(error))
                usedBlocks += (it->file_size(error) + 1023) / 1024;
        }
        FileSystemUsage usage;
        usage.blocks = ramBlocks;
        usage.freeBlocks = ramBlocks > usedBlocks ? ramBlocks - usedBlocks : 0;
        usage.inodes = ramInodes;
        usage.freeInodes = ramInodes > usedInodes ? ramInodes - usedInodes : 0;
        return usage;
    }
};

// ---------------------------------------------------------------- set-up

VirtualBoard::VirtualBoard(std::int64_t startUnix) : VirtualBoard(std::string(), startUnix) {}

VirtualBoard::VirtualBoard(const std::string &root, std::int64_t startUnix)
    : state_(std::make_unique<State>())
{
    State &s = *state_;
    std::error_code error;
    if (!root.empty()) {
        s.root = root;
        fs::create_directories(root, error);
    } else {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/zarvent-board-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        s.root = pattern;
        s.temporary = true;
    }
    s.nowUs = startUnix * 1000000;
    fs::create_directories(s.hostPath(kWorkDir), error);
    fs::create_directories(s.hostPath("/sys/class/gpio"), error);
}

VirtualBoard::~VirtualBoard()
{
    stop();
    if (state_->temporary) {
        makeWritable(state_->root);
        std::error_code error;
        fs::remove_all(state_->root, error);
    }
}

void VirtualBoard::boardTree()
{
    writeFile(std::string(kWorkDir) + "/spiWrite", "#!/bin/sh\n# register tool (modelled)\n");
    writeFile(std::string(kWorkDir) + "/wrFPGA", "#!/bin/sh\n# FPGA loader (modelled)\n");
    writeFile(std::string(kWorkDir) + "/Version_1.rbf", "bitstream\n");
    std::error_code error;
    for (const char *dir : {"/ramcache/zarvent", "/ftpdir", "/etc/network", "/dev", "/run"})
        fs::create_directories(hostPath(dir), error);
    provideLine(85, true, 1);
    provideLine(176, false, 1);
}

const std::string &VirtualBoard::root() const
{
    return state_->root;
}

std::string VirtualBoard::hostPath(const std::string &boardPath) const
{
    return state_->hostPath(boardPath);
}

void VirtualBoard::writeFile(const std::string &boardPath, const std::string &text)
{
    const std::string path = hostPath(boardPath);
    std::error_code error;
    fs::create_directories(fs::path(path).parent_path(), error);
    writeHostFile(path, text);
}

std::optional<std::string> VirtualBoard::readFile(const std::string &boardPath) const
{
    return readHostFile(hostPath(boardPath));
}

bool VirtualBoard::exists(const std::string &boardPath) const
{
    struct stat st {};
    return ::stat(hostPath(boardPath).c_str(), &st) == 0;
}

void VirtualBoard::setReadOnly(const std::string &boardDirectory, bool readOnly)
{
    const std::lock_guard lock(state_->mutex);
    auto &dirs = state_->readOnly;
    const std::string dir = absolutePath(boardDirectory);
    dirs.erase(std::remove(dirs.begin(), dirs.end(), dir), dirs.end());
    if (readOnly)
        dirs.push_back(dir);
}

void VirtualBoard::failOpen(const std::string &boardPath, int error)
{
    const std::lock_guard lock(state_->mutex);
    if (error == 0)
        state_->failedOpens.erase(absolutePath(boardPath));
    else
        state_->failedOpens[absolutePath(boardPath)] = error;
}

void VirtualBoard::setRamDisk(std::uint64_t blocks, std::uint64_t inodes)
{
    const std::lock_guard lock(state_->mutex);
    state_->ramBlocks = blocks;
    state_->ramInodes = inodes;
    state_->ramUsage.reset();
}

// ---------------------------------------------------------------- clock

std::int64_t VirtualBoard::nowUs() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->nowUs;
}

void VirtualBoard::setNowUs(std::int64_t us)
{
    const std::lock_guard lock(state_->mutex);
    state_->nowUs = us;
}

void VirtualBoard::setCommandCostUs(std::int64_t us)
{
    const std::lock_guard lock(state_->mutex);
    state_->commandCostUs = us;
}

std::int64_t VirtualBoard::monotonicNs()
{
    const std::lock_guard lock(state_->mutex);
    return state_->nowUs * 1000;
}

std::int64_t VirtualBoard::realtimeNs()
{
    const std::lock_guard lock(state_->mutex);
    return (state_->nowUs + state_->clockStepUs) * 1000;
}

std::optional<std::tm> VirtualBoard::localTime(std::int64_t unixSeconds)
{
    // The board keeps its local time in UTC.
    const auto t = static_cast<std::time_t>(unixSeconds);
    std::tm out{};
    if (::gmtime_r(&t, &out) == nullptr)
        return std::nullopt;
    return out;
}

void VirtualBoard::sleepSeconds(unsigned seconds)
{
    state_->checkRunning();
    state_->passTime(static_cast<std::int64_t>(seconds) * 1000000);
}

void VirtualBoard::sleepMicroseconds(unsigned microseconds)
{
    state_->checkRunning();
    state_->passTime(static_cast<std::int64_t>(microseconds));
}

// ---------------------------------------------------------------- commands

std::unique_ptr<Command> VirtualBoard::startCommand(const std::string &line, PipeMode mode,
                                                    Deadline deadline)
{
    State &s = *state_;
    s.checkRunning();
    std::int64_t cost = 0;
    {
        const std::lock_guard lock(s.mutex);
        cost = s.commandCostUs;
    }
    // Starting a program on the board takes time of its own; the command
    // runs (and is logged) once that has passed.
    if (cost > 0)
        s.passTime(cost);
    const std::string program = line.substr(0, line.find_first_of(" \t\n;|"));
    ToolFault fault = ToolFault::None;
    std::int64_t deadlineUs =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline).count();
    {
        const std::lock_guard lock(s.mutex);
        if (const auto f = s.toolFaults.find(line); f != s.toolFaults.end())
            fault = f->second;
        else if (const auto g = s.toolFaults.find(program); g != s.toolFaults.end())
            fault = g->second;
        // As on the board: after a stop request no command outlasts it by
        // more than the grace.
        if (s.stopRequested)
            deadlineUs = std::min(
                deadlineUs,
                std::max<std::int64_t>(
                    0,
                    s.stopRequestedAtUs +
                        std::chrono::duration_cast<std::chrono::microseconds>(kStopGrace).count() -
                        s.nowUs));
    }
    constexpr std::int64_t kSlowUs = 3000000;
    if (fault == ToolFault::Hang || (fault == ToolFault::Slow && kSlowUs >= deadlineUs)) {
        // Killed at its deadline with its group, before it did anything.
        {
            const std::lock_guard lock(s.mutex);
            s.commands.push_back({line, mode, s.nowUs});
        }
        s.passTime(deadlineUs);
        return std::make_unique<ModelledCommand>("", -1, true);
    }
    if (fault == ToolFault::Slow)
        s.passTime(kSlowUs);
    std::unique_lock lock(s.mutex);
    s.commands.push_back({line, mode, s.nowUs});
    const std::size_t printedBefore = s.printed.size();
    std::string output;
    if (Rule *rule = s.ruleLocked(line)) {
        if (rule->once)
            rule->used = true;
        if (rule->failStart) {
            lock.unlock();
            errno = ENOENT;
            return nullptr;
        }
        output = rule->output;
    } else {
        s.runLineLocked(lock, line, output);
    }
    const int status = s.misbehaveLocked(fault, program, output);
    if (fault != ToolFault::None && fault != ToolFault::Slow && fault != ToolFault::ExitStatus)
        s.printed.resize(std::min(printedBefore, s.printed.size())); // not what it printed
    // A command started for writing has its output on the daemon's own
    // standard output, not in the pipe.
    if (mode == PipeMode::Write)
        output.clear();
    return std::make_unique<ModelledCommand>(std::move(output), status);
}

void VirtualBoard::setToolFault(const std::string &program, ToolFault fault)
{
    const std::lock_guard lock(state_->mutex);
    if (fault == ToolFault::None)
        state_->toolFaults.erase(program);
    else
        state_->toolFaults[program] = fault;
}

int VirtualBoard::unreadRegisterWrites() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->unreadWrites;
}

void VirtualBoard::setLoaderBroken(bool broken)
{
    const std::lock_guard lock(state_->mutex);
    state_->loaderBroken = broken;
}

void VirtualBoard::stepClock(std::int64_t deltaUs)
{
    const std::lock_guard lock(state_->mutex);
    state_->clockStepUs += deltaUs;
}

void VirtualBoard::setRamDiskFull(bool noSpace, bool noInodes)
{
    const std::lock_guard lock(state_->mutex);
    state_->ramNoSpace = noSpace;
    state_->ramNoInodes = noInodes;
}

std::vector<std::string> VirtualBoard::writtenPaths() const
{
    const std::lock_guard lock(state_->mutex);
    return {state_->written.begin(), state_->written.end()};
}

void VirtualBoard::onCommand(const std::string &line, const std::string &output)
{
    const std::lock_guard lock(state_->mutex);
    state_->rules.push_back({line, output, false, false, false});
}

void VirtualBoard::onCommandOnce(const std::string &line, const std::string &output)
{
    const std::lock_guard lock(state_->mutex);
    state_->rules.push_back({line, output, false, true, false});
}

void VirtualBoard::failCommand(const std::string &line)
{
    const std::lock_guard lock(state_->mutex);
    state_->rules.push_back({line, "", true, false, false});
}

void VirtualBoard::setToolAbsent(const std::string &tool, bool absent)
{
    const std::lock_guard lock(state_->mutex);
    auto &tools = state_->absentTools;
    tools.erase(std::remove(tools.begin(), tools.end(), tool), tools.end());
    if (absent)
        tools.push_back(tool);
}

std::vector<CommandRecord> VirtualBoard::commands() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->commands;
}

std::vector<CommandRecord> VirtualBoard::commands(std::size_t from) const
{
    const std::lock_guard lock(state_->mutex);
    const auto &all = state_->commands;
    return {all.begin() + static_cast<std::ptrdiff_t>(std::min(from, all.size())), all.end()};
}

std::size_t VirtualBoard::countCommand(const std::string &line) const
{
    const std::lock_guard lock(state_->mutex);
    std::size_t count = 0;
    for (const CommandRecord &c : state_->commands)
        count += c.line == line ? 1U : 0U;
    return count;
}

long VirtualBoard::findCommand(const std::string &line, std::size_t from) const
{
    const std::lock_guard lock(state_->mutex);
    for (std::size_t i = from; i < state_->commands.size(); i++)
        if (state_->commands[i].line == line)
            return static_cast<long>(i);
    return -1;
}

void VirtualBoard::dropHistory()
{
    const std::lock_guard lock(state_->mutex);
    state_->commands.clear();
    state_->commands.shrink_to_fit();
    state_->levels.clear();
    state_->levels.shrink_to_fit();
    state_->dacWords.clear();
    state_->dacWords.shrink_to_fit();
}

void VirtualBoard::clearCommands()
{
    const std::lock_guard lock(state_->mutex);
    state_->commands.clear();
}

// ---------------------------------------------------------------- FPGA registers

void VirtualBoard::setRegister(int reg, std::uint64_t value)
{
    const std::lock_guard lock(state_->mutex);
    if (reg >= 0 && reg < 64)
        state_->registers[static_cast<std::size_t>(reg)] = value;
}

std::uint64_t VirtualBoard::getRegister(int reg) const
{
    const std::lock_guard lock(state_->mutex);
    return reg >= 0 && reg < 64 ? state_->registers[static_cast<std::size_t>(reg)] : 0;
}

void VirtualBoard::setFpgaConfigured(bool configured)
{
    const std::lock_guard lock(state_->mutex);
    state_->configured = configured;
}

bool VirtualBoard::fpgaConfigured() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->configured;
}

void VirtualBoard::setRegisterToolFault(RegisterToolFault fault)
{
    const std::lock_guard lock(state_->mutex);
    state_->toolFault = fault;
}

void VirtualBoard::setRegisterHooks(RegisterReadHook onRead, RegisterWriteHook onWrite)
{
    const std::lock_guard lock(state_->mutex);
    state_->onRead = std::move(onRead);
    state_->onWrite = std::move(onWrite);
}

int VirtualBoard::loaderRuns() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->loaderRuns;
}

// ---------------------------------------------------------------- ntpd and the kernel clock

void VirtualBoard::setPeer(Peer peer)
{
    const std::lock_guard lock(state_->mutex);
    state_->peer = peer;
}

char VirtualBoard::rmcStatus() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->rmc;
}

void VirtualBoard::setRmcStatus(char status)
{
    const std::lock_guard lock(state_->mutex);
    state_->rmc = status;
}

void VirtualBoard::setTai(int tai)
{
    const std::lock_guard lock(state_->mutex);
    state_->tai = tai;
}

std::string VirtualBoard::formatNtptime(std::int64_t unixUs, int tai)
{
    const auto secs = static_cast<std::time_t>(unixUs / 1000000);
    const auto usec = static_cast<unsigned>(unixUs % 1000000);
    std::tm t{};
    ::gmtime_r(&secs, &t);
    const auto ntpSecs = static_cast<std::uint32_t>(static_cast<std::int64_t>(secs) + 2208988800LL);
    // Microsecond mode: the fraction is rounded to whole microseconds, so its
    // last three hex digits print as 000.
    const auto fraction =
        static_cast<std::uint32_t>((static_cast<std::uint64_t>(usec) << 32) / 1000000u) &
        0xFFFFF000u;
    return format("ntp_gettime() returns code 0 (OK)\n"
                  "  time %08lx.%08lx  %s, %s %2d %4d %2d:%02d:%02d.%03u, (.%06u),\n"
                  "  maximum error 16000 us, estimated error 16 us, TAI offset %d\n"
                  "ntp_adjtime() returns code 0 (OK)\n"
                  "  modes 0x0 (),\n"
                  "  offset 0.000 us, frequency 0.000 ppm, interval 1 s,\n"
                  "  maximum error 16000 us, estimated error 16 us,\n"
                  "  status 0x1 (PLL),\n"
                  "  time constant 2, precision 1.000 us, tolerance 500 ppm,\n",
                  static_cast<unsigned long>(ntpSecs), static_cast<unsigned long>(fraction),
                  kWeekdays[t.tm_wday], kMonths[t.tm_mon], t.tm_mday, t.tm_year + 1900, t.tm_hour,
                  t.tm_min, t.tm_sec, usec / 1000, usec, tai);
}

std::string VirtualBoard::formatClockvar(std::int64_t unixUs, char status)
{
    const auto secs = static_cast<std::time_t>(unixUs / 1000000);
    std::tm t{};
    ::gmtime_r(&secs, &t);
    const std::string body =
        status == 'A'
            ? format("GPRMC,%02d%02d%02d.00,A,5540.1234,N,03736.5678,E,0.00,0.00,%02d%02d%02d,,,A",
                     t.tm_hour, t.tm_min, t.tm_sec, t.tm_mday, t.tm_mon + 1, t.tm_year % 100)
            : format("GPRMC,%02d%02d%02d.00,%c,,,,,,,%02d%02d%02d,,,N", t.tm_hour, t.tm_min,
                     t.tm_sec, status, t.tm_mday, t.tm_mon + 1, t.tm_year % 100);
    unsigned sum = 0;
    for (const char c : body)
        sum ^= static_cast<unsigned char>(c);
    return format("associd=0 status=0000 no events, clk_unspec,\n"
                  "device=\"NMEA GPS Clock\",\n"
                  "timecode=\"$%s*%02X\",\n"
                  "poll=3418, noreply=0, badformat=0, baddata=0,\n"
                  "stratum=0, refid=GPS, flags=5\n",
                  body.c_str(), sum);
}

std::string VirtualBoard::eth0Address() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->eth0;
}

bool VirtualBoard::ramDiskMounted() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->mounted;
}

// ---------------------------------------------------------------- GPIO

void VirtualBoard::holdNextRead(int line, std::int64_t us)
{
    const std::lock_guard lock(state_->mutex);
    state_->heldReads[line] = us;
}

void VirtualBoard::provideLine(int line, bool output, int level)
{
    const std::lock_guard lock(state_->mutex);
    if (GpioLine *g = state_->line(line)) {
        g->exported = true;
        g->output = output;
        g->level = level;
    }
}

void VirtualBoard::setInput(int line, int level)
{
    const std::lock_guard lock(state_->mutex);
    if (GpioLine *g = state_->line(line))
        g->level = level;
}

void VirtualBoard::queueReads(int line, std::vector<int> levels)
{
    const std::lock_guard lock(state_->mutex);
    if (GpioLine *g = state_->line(line))
        g->queued.assign(levels.begin(), levels.end());
}

void VirtualBoard::setPulse(int line, std::int64_t highUs, std::int64_t periodUs)
{
    const std::lock_guard lock(state_->mutex);
    if (GpioLine *g = state_->line(line)) {
        g->pulseHighUs = highUs;
        g->pulsePeriodUs = periodUs > 0 ? periodUs : 1000000;
    }
}

int VirtualBoard::level(int line) const
{
    const std::lock_guard lock(state_->mutex);
    const GpioLine *g = state_->line(line);
    return g != nullptr && g->exported ? g->level : -1;
}

bool VirtualBoard::exported(int line) const
{
    const std::lock_guard lock(state_->mutex);
    const GpioLine *g = state_->line(line);
    return g != nullptr && g->exported;
}

std::string VirtualBoard::direction(int line) const
{
    const std::lock_guard lock(state_->mutex);
    const GpioLine *g = state_->line(line);
    if (g == nullptr || !g->exported)
        return "";
    return g->output ? "out" : "in";
}

std::string VirtualBoard::edge(int line) const
{
    const std::lock_guard lock(state_->mutex);
    const GpioLine *g = state_->line(line);
    return g != nullptr ? g->edge : "";
}

std::size_t VirtualBoard::reads(int line) const
{
    const std::lock_guard lock(state_->mutex);
    const GpioLine *g = state_->line(line);
    return g != nullptr ? g->reads : 0;
}

std::vector<LevelRecord> VirtualBoard::levels() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->levels;
}

std::string VirtualBoard::lastWrite(int line) const
{
    const std::lock_guard lock(state_->mutex);
    const GpioLine *g = state_->line(line);
    return g != nullptr ? g->lastWrite : "";
}

std::vector<DacWord> VirtualBoard::dacWords(std::size_t from) const
{
    const std::lock_guard lock(state_->mutex);
    const auto &words = state_->dacWords;
    if (from >= words.size())
        return {};
    return {words.data() + from, words.data() + words.size()};
}

int VirtualBoard::openDescriptors() const
{
    const std::lock_guard lock(state_->mutex);
    return static_cast<int>(
        std::count_if(state_->fds.begin(), state_->fds.end(),
                      [](const VirtualFd &v) { return v.kind != FdKind::Free; }));
}

// ---------------------------------------------------------------- descriptors

int VirtualBoard::open(const std::string &path, int flags)
{
    State &s = *state_;
    s.checkRunning();
    std::unique_lock lock(s.mutex);
    if (const auto failed = s.failedOpens.find(absolutePath(path)); failed != s.failedOpens.end()) {
        errno = failed->second;
        return -1;
    }
    int number = 0;
    if (path == "/sys/class/gpio/export")
        return s.newFdLocked(FdKind::Export, 0);
    if (const FdKind kind = parseGpioPath(path, number); kind != FdKind::Free) {
        const GpioLine *g = s.line(number);
        if (g == nullptr || !g->exported) {
            errno = ENOENT;
            return -1;
        }
        return s.newFdLocked(kind, number);
    }
    if (path == "/dev/spidev1.0") {
        if (!s.spiPresent || s.spiFail[static_cast<std::size_t>(SpiOp::Open)]) {
            errno = ENOENT;
            return -1;
        }
        return s.newFdLocked(FdKind::Spi, 0);
    }
    if (opensForWriting(flags) && s.readOnlyLocked(path)) {
        errno = EROFS;
        return -1;
    }
    const std::string absolute = absolutePath(path);
    const bool onRamDisk = absolute.starts_with("/ramcache/");
    if (onRamDisk && s.ramNoInodes && (flags & O_CREAT) != 0 &&
        ::access(s.hostPath(path).c_str(), F_OK) != 0) {
        errno = ENOSPC;
        return -1;
    }
    // The daemon's output directory takes a new chart file name every minute:
    // only paths outside it are kept, so that the set stays small.
    if (opensForWriting(flags) && !absolute.starts_with("/ramcache/zarvent/"))
        s.written.insert(absolute);
    const int fd = ::open(s.hostPath(path).c_str(), flags | O_CLOEXEC, 0666);
    if (fd >= 0 && onRamDisk)
        s.ramFds.insert(fd);
    return fd;
}

long VirtualBoard::read(int fd, std::span<char> into)
{
    State &s = *state_;
    s.holdReadIfAsked(fd);
    std::unique_lock lock(s.mutex);
    if (VirtualFd *v = s.fdLocked(fd))
        return s.readAttributeLocked(*v, into);
    lock.unlock();
    return ::read(fd, into.data(), into.size());
}

long VirtualBoard::readAt(int fd, std::span<char> into, std::int64_t offset)
{
    State &s = *state_;
    s.holdReadIfAsked(fd);
    std::unique_lock lock(s.mutex);
    if (VirtualFd *v = s.fdLocked(fd))
        return s.readAttributeLocked(*v, into);
    lock.unlock();
    return ::pread(fd, into.data(), into.size(), static_cast<off_t>(offset));
}

long VirtualBoard::write(int fd, std::span<const char> from)
{
    State &s = *state_;
    std::unique_lock lock(s.mutex);
    if (VirtualFd *v = s.fdLocked(fd))
        return s.writeAttributeLocked(*v, from);
    if (s.ramNoSpace && s.ramFds.contains(fd)) {
        errno = ENOSPC;
        return -1;
    }
    lock.unlock();
    return ::write(fd, from.data(), from.size());
}

long VirtualBoard::writeAt(int fd, std::span<const char> from, std::int64_t offset)
{
    State &s = *state_;
    std::unique_lock lock(s.mutex);
    if (VirtualFd *v = s.fdLocked(fd))
        return s.writeAttributeLocked(*v, from);
    if (s.ramNoSpace && s.ramFds.contains(fd)) {
        errno = ENOSPC;
        return -1;
    }
    lock.unlock();
    return ::pwrite(fd, from.data(), from.size(), static_cast<off_t>(offset));
}

int VirtualBoard::close(int fd)
{
    // No end-of-run check: descriptors are closed by destructors while a
    // daemon thread unwinds.
    std::unique_lock lock(state_->mutex);
    if (VirtualFd *v = state_->fdLocked(fd)) {
        v->kind = FdKind::Free;
        return 0;
    }
    state_->ramFds.erase(fd);
    lock.unlock();
    return ::close(fd);
}

// ---------------------------------------------------------------- SPI device

int VirtualBoard::ioctl(int fd, unsigned long request, void *argument)
{
    State &s = *state_;
    s.checkRunning();
    const std::lock_guard lock(s.mutex);
    const VirtualFd *v = s.fdLocked(fd);
    if (v == nullptr || v->kind != FdKind::Spi) {
        errno = ENOTTY;
        return -1;
    }
    const auto failing = [&](SpiOp op) { return s.spiFail[static_cast<std::size_t>(op)]; };
    auto *byte = static_cast<std::uint8_t *>(argument);
    int rc = -1;
    errno = EIO;
    if (request == SPI_IOC_WR_MODE) {
        if (!failing(SpiOp::WriteMode)) {
            s.spiMode = *byte;
            s.spiLast.modeWritten = s.spiMode;
            rc = 0;
        }
    } else if (request == SPI_IOC_RD_MODE) {
        if (!failing(SpiOp::ReadMode)) {
            *byte = s.spiMode;
            rc = 0;
        }
    } else if (request == SPI_IOC_WR_BITS_PER_WORD) {
        if (!failing(SpiOp::WriteBits)) {
            s.spiBits = *byte;
            s.spiLast.bitsWritten = s.spiBits;
            rc = 0;
        }
    } else if (request == SPI_IOC_RD_BITS_PER_WORD) {
        if (!failing(SpiOp::ReadBits)) {
            *byte = s.spiBits;
            rc = 0;
        }
    } else if (request == SPI_IOC_MESSAGE(1)) {
        // A failing exchange transfers nothing and reports 0 bytes.
        rc = 0;
        if (!failing(SpiOp::Message)) {
            const auto *tr = static_cast<const spi_ioc_transfer *>(argument);
            SpiRecord &r = s.spiLast;
            r.len = tr->len;
            r.speedHz = tr->speed_hz;
            r.delayUsecs = tr->delay_usecs;
            r.bitsPerWord = tr->bits_per_word;
            r.csChange = tr->cs_change;
            r.txNbits = tr->tx_nbits;
            r.rxNbits = tr->rx_nbits;
            r.wordDelayUsecs = tr->word_delay_usecs;
            r.pad = tr->pad;
            const auto *tx =
                reinterpret_cast<const std::uint8_t *>(static_cast<std::uintptr_t>(tr->tx_buf));
            auto *rx = reinterpret_cast<std::uint8_t *>(static_cast<std::uintptr_t>(tr->rx_buf));
            r.txHead[0] = tx != nullptr && tr->len > 0 ? tx[0] : 0;
            r.txHead[1] = tx != nullptr && tr->len > 1 ? tx[1] : 0;
            r.txRestZero =
                tx == nullptr || std::all_of(tx + std::min<std::uint32_t>(tr->len, 2), tx + tr->len,
                                             [](std::uint8_t b) { return b == 0; });
            if (rx != nullptr)
                std::copy_n(s.spiReply.begin(), std::min<std::size_t>(tr->len, kSpiFrame), rx);
            s.spiExchanges++;
            rc = static_cast<int>(tr->len);
        }
    } else {
        errno = ENOTTY;
    }
    return rc;
}

void VirtualBoard::setSpiPresent(bool present)
{
    const std::lock_guard lock(state_->mutex);
    state_->spiPresent = present;
}

void VirtualBoard::failSpi(SpiOp op)
{
    const std::lock_guard lock(state_->mutex);
    state_->spiFail[static_cast<std::size_t>(op)] = true;
}

void VirtualBoard::setSpiReply(std::span<const std::uint8_t> reply)
{
    const std::lock_guard lock(state_->mutex);
    state_->spiReply.fill(0);
    std::copy_n(reply.begin(), std::min(reply.size(), kSpiFrame), state_->spiReply.begin());
}

int VirtualBoard::spiExchanges() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->spiExchanges;
}

SpiRecord VirtualBoard::lastSpi() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->spiLast;
}

// ---------------------------------------------------------------- the file system

std::vector<std::string> VirtualBoard::listDirectory(const std::string &path)
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(hostPath(path), error))
        names.push_back(entry.path().filename().string());
    // Sorted: the host file system's order must not change a run.
    std::sort(names.begin(), names.end());
    return names;
}

bool VirtualBoard::removeFile(const std::string &path)
{
    State &s = *state_;
    {
        const std::lock_guard lock(s.mutex);
        if (s.readOnlyLocked(path)) {
            errno = EROFS;
            return false;
        }
        s.ramUsage.reset();
    }
    return ::unlink(hostPath(path).c_str()) == 0;
}

bool VirtualBoard::makeDirectory(const std::string &path)
{
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->readOnlyLocked(path)) {
            errno = EROFS;
            return false;
        }
    }
    return ::mkdir(hostPath(path).c_str(), 0755) == 0 || errno == EEXIST;
}

bool VirtualBoard::renameFile(const std::string &from, const std::string &to)
{
    State &s = *state_;
    {
        const std::lock_guard lock(s.mutex);
        if (s.readOnlyLocked(from) || s.readOnlyLocked(to)) {
            errno = EROFS;
            return false;
        }
        // A file renamed over another (the status page every second) frees
        // what the new one takes: the count of a minute ago still holds.
    }
    return std::rename(hostPath(from).c_str(), hostPath(to).c_str()) == 0;
}

std::optional<std::uint64_t> VirtualBoard::deviceOf(const std::string &path)
{
    const std::lock_guard lock(state_->mutex);
    const std::string board = absolutePath(path);
    if (state_->mounted && (board == "/ramcache" || board.starts_with("/ramcache/")))
        return 2;
    return 1;
}

int VirtualBoard::tryLockFile(int fd)
{
    return ::flock(fd, LOCK_EX | LOCK_NB);
}

std::optional<std::int64_t> VirtualBoard::fileSize(const std::string &path)
{
    struct stat st {};
    if (::stat(hostPath(path).c_str(), &st) != 0)
        return std::nullopt;
    return static_cast<std::int64_t>(st.st_size);
}

std::optional<FileSystemUsage> VirtualBoard::fileSystemUsage(const std::string &path)
{
    State &s = *state_;
    const std::string board = absolutePath(path);
    {
        const std::lock_guard lock(s.mutex);
        if (s.mounted && (board == "/ramcache" || board.starts_with("/ramcache/"))) {
            if (!s.ramUsage || s.nowUs - s.ramUsageAtUs >= 60'000'000) {
                s.ramUsage = s.ramDiskUsageLocked();
                s.ramUsageAtUs = s.nowUs;
            }
            FileSystemUsage usage = *s.ramUsage;
            if (s.ramNoSpace)
                usage.freeBlocks = 0;
            if (s.ramNoInodes)
                usage.freeInodes = 0;
            return usage;
        }
    }
    struct statvfs st {};
    if (::statvfs(hostPath(path).c_str(), &st) != 0)
        return std::nullopt;
    FileSystemUsage usage;
    usage.blocks = st.f_blocks;
    usage.freeBlocks = st.f_bfree;
    usage.inodes = st.f_files;
    usage.freeInodes = st.f_ffree;
    return usage;
}

// ---------------------------------------------------------------- threads and locks

void VirtualBoard::startThread(std::function<void()> entry)
{
    State &s = *state_;
    s.checkRunning();
    std::unique_lock lock(s.mutex);
    s.threadEntries.push_back(entry);
    if (Scheduler *scheduler = s.scheduler) {
        s.threadsStarted = s.threadEntries.size();
        lock.unlock();
        scheduler->startThread(std::move(entry));
    }
}

bool VirtualBoard::stopRequested()
{
    const std::lock_guard lock(state_->mutex);
    return state_->stopRequested;
}

void VirtualBoard::requestStop(bool stop)
{
    const std::lock_guard lock(state_->mutex);
    state_->stopRequested = stop;
    state_->stopRequestedAtUs = state_->nowUs;
}

void VirtualBoard::setWatchdogInterval(std::optional<std::chrono::microseconds> interval)
{
    const std::lock_guard lock(state_->mutex);
    state_->watchdog = interval;
}

std::optional<std::chrono::microseconds> VirtualBoard::watchdogInterval()
{
    const std::lock_guard lock(state_->mutex);
    return state_->watchdog;
}

void VirtualBoard::notifyServiceManager(std::string_view text)
{
    const std::lock_guard lock(state_->mutex);
    state_->notifications.emplace_back(state_->nowUs, std::string(text));
}

std::vector<std::pair<std::int64_t, std::string>> VirtualBoard::notifications() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->notifications;
}

int VirtualBoard::processId()
{
    return 4242;
}

// The scheduler the main thread waits in; without one (unit tests) the
// caller's wait ends the run.
Scheduler &VirtualBoard::mainWaitScheduler()
{
    state_->checkRunning();
    Scheduler *scheduler = nullptr;
    {
        const std::lock_guard lock(state_->mutex);
        scheduler = state_->scheduler;
    }
    if (scheduler == nullptr)
        throw SimulationEnded{};
    return *scheduler;
}

bool VirtualBoard::waitForStopRequest(Deadline timeout)
{
    Scheduler &scheduler = mainWaitScheduler();
    // One poll interval of virtual time at a time: the request comes from
    // the scenario, between two of the daemon's steps.
    const std::int64_t until =
        nowUs() + std::chrono::duration_cast<std::chrono::microseconds>(timeout).count();
    while (!stopRequested() && nowUs() < until)
        scheduler.wait(500);
    return stopRequested();
}

void VirtualBoard::joinThreads()
{
    Scheduler &scheduler = mainWaitScheduler();
    while (scheduler.liveThreads() > 1)
        scheduler.wait(500);
}

void VirtualBoard::lock(Mutex &mutex) NO_THREAD_SAFETY_ANALYSIS
{
    State &s = *state_;
    s.checkRunning();
    bool scheduled = false;
    {
        const std::lock_guard lock(s.mutex);
        scheduled = s.scheduler != nullptr;
    }
    if (!scheduled) {
        mutex.lock();
        return;
    }
    // The holder may be waiting for the baton: retry after a little virtual
    // time instead of blocking the whole board.
    while (!mutex.tryLock())
        s.passTime(kLockRetryUs);
}

void VirtualBoard::writeError(std::string_view text)
{
    const std::lock_guard lock(state_->mutex);
    state_->errorOutput += text;
}

void VirtualBoard::abortProcess()
{
    Scheduler *scheduler = nullptr;
    {
        const std::lock_guard lock(state_->mutex);
        state_->aborted = true;
        scheduler = state_->scheduler;
    }
    if (scheduler != nullptr)
        scheduler->abortRun();
    throw SimulationEnded{};
}

std::string VirtualBoard::errorOutput() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->errorOutput;
}

bool VirtualBoard::aborted() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->aborted;
}

std::size_t VirtualBoard::threadCount() const
{
    const std::lock_guard lock(state_->mutex);
    return state_->threadEntries.size();
}

void VirtualBoard::runRecordedThreads()
{
    State &s = *state_;
    const std::lock_guard lock(s.mutex);
    for (; s.threadsStarted < s.threadEntries.size(); s.threadsStarted++) {
        s.threads.emplace_back([&s, entry = s.threadEntries[s.threadsStarted]] {
            const auto self = std::this_thread::get_id();
            {
                const std::lock_guard registered(s.mutex);
                s.daemonThreads.insert(self);
            }
            try {
                entry();
            } catch (const SimulationEnded &) {
            }
            const std::lock_guard registered(s.mutex);
            s.daemonThreads.erase(s.daemonThreads.find(self));
        });
    }
}

void VirtualBoard::stop()
{
    State &s = *state_;
    Scheduler *scheduler = nullptr;
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(s.mutex);
        s.stopped = true;
        scheduler = s.scheduler;
        threads.swap(s.threads);
    }
    if (scheduler != nullptr)
        scheduler->finish();
    for (std::thread &thread : threads)
        thread.join();
}

void VirtualBoard::attachScheduler(Scheduler *scheduler)
{
    const std::lock_guard lock(state_->mutex);
    state_->scheduler = scheduler;
}

} // namespace zarvent::sim
