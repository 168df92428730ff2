// The virtual board: the second implementation of the OS seam.
//
// It answers the daemon's calls from a model of the board instead of the OS:
// - files: every path maps into a per-run directory tree (absolute paths under
//   the root, relative ones under the working directory /usr/bin/Zarvent);
//   nothing outside it is touched;
// - sysfs GPIO under /sys/class/gpio with the kernel's semantics, a log of
//   every level written and a decoder of the DAC's three-wire words;
// - commands: the command lines the daemon runs, answered by tool models
//   (spiWrite over a register file, wrFPGA, ntpq, ntptime, the shell
//   utilities acting on the tree; mkfs, mount, agetty, mversion, adjtimex,
//   ifconfig recorded), after per-test rules;
// - the SPI capture device /dev/spidev1.0 and its ioctls;
// - one virtual clock for the realtime clock, local time (UTC), sleeps.
//
// Without a scheduler (unit tests) the calling thread lets virtual time pass
// by itself, and threads the daemon starts are only recorded until
// runRecordedThreads() starts them as real, concurrent threads. With a
// Scheduler attached (the simulator) every daemon thread runs in virtual time,
// one at a time. stop() ends the run: from then on every call of the seam made
// by a daemon thread throws SimulationEnded, which unwinds that thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/platform.h"

namespace zarvent::sim {

class Scheduler;

// Thrown by the seam's calls in a daemon thread once the run has ended.
struct SimulationEnded {};

struct CommandRecord {
    std::string line;
    PipeMode mode = PipeMode::Read;
    std::int64_t timeUs = 0;
};

// One write of a level to a value file, by the pin layer or by a shell echo.
struct LevelRecord {
    std::int64_t timeUs = 0;
    int line = 0;
    int level = 0;
    bool byShell = false;
};

// A DAC word decoded from lines 106 (select), 96 (clock) and 118 (data).
struct DacWord {
    std::int64_t timeUs = 0;
    std::uint32_t word = 0;
    int bits = 0;           // 24 for a complete frame
    bool malformed = false; // a frame with other than 24 clock pulses
};

enum class Peer { None, System, Pps, Both };
enum class RegisterToolFault { None, Garbage, Short };
// What a misbehaving program does to its output (the model still runs, so
// its effects on the board happen): nothing at all, the first half, the same
// shape with other letters and digits, an error message instead, everything
// on one endless line without a newline, binary junk, the right output with
// exit status 1, the right output after three seconds (killed first where
// its deadline is shorter), or never ending until killed at its deadline,
// having done nothing. A missing program is setToolAbsent().
enum class ToolFault {
    None,
    Empty,
    Short,
    Garbage,
    Error,
    Overlong,
    Binary,
    ExitStatus,
    Slow,
    Hang
};
enum class SpiOp { Open, WriteMode, ReadMode, WriteBits, ReadBits, Message };

// The fields of the last SPI transfer descriptor the daemon handed over.
struct SpiRecord {
    std::uint32_t len = 0;
    std::uint32_t speedHz = 0;
    std::uint16_t delayUsecs = 0;
    std::uint8_t bitsPerWord = 0;
    std::uint8_t csChange = 0;
    std::uint8_t txNbits = 0;
    std::uint8_t rxNbits = 0;
    std::uint8_t wordDelayUsecs = 0;
    std::uint8_t pad = 0;
    std::uint8_t txHead[2] = {0, 0};
    bool txRestZero = true;
    std::uint8_t modeWritten = 0;
    std::uint8_t bitsWritten = 0;
};

using RegisterReadHook = std::function<void(int reg)>;
using RegisterWriteHook =
    std::function<void(int reg, std::uint64_t value, int bytes, const std::string &line)>;

class VirtualBoard final : public Platform {
  public:
    // A fresh board in a new temporary directory, removed by the destructor;
    // the clock at startUnix seconds.
    explicit VirtualBoard(std::int64_t startUnix);
    // A board whose tree is the directory root (created when missing and
    // kept: the simulator's outputs).
    VirtualBoard(const std::string &root, std::int64_t startUnix);
    // Ends the run (stop()), then removes a temporary tree.
    ~VirtualBoard() override;
    VirtualBoard(const VirtualBoard &) = delete;
    VirtualBoard &operator=(const VirtualBoard &) = delete;

    // ---- the seam
    std::unique_ptr<Command> startCommand(const std::string &line, PipeMode mode,
                                          Deadline deadline) override;
    int open(const std::string &path, int flags) override;
    long read(int fd, std::span<char> into) override;
    long readAt(int fd, std::span<char> into, std::int64_t offset) override;
    long write(int fd, std::span<const char> from) override;
    long writeAt(int fd, std::span<const char> from, std::int64_t offset) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void *argument) override;
    std::vector<std::string> listDirectory(const std::string &path) override;
    bool removeFile(const std::string &path) override;
    bool makeDirectory(const std::string &path) override;
    bool renameFile(const std::string &from, const std::string &to) override;
    std::optional<std::int64_t> fileSize(const std::string &path) override;
    std::optional<FileSystemUsage> fileSystemUsage(const std::string &path) override;
    // /ramcache lies on a device of its own once the RAM disk is mounted.
    std::optional<std::uint64_t> deviceOf(const std::string &path) override;
    int tryLockFile(int fd) override;
    std::int64_t realtimeNs() override;
    // Virtual time, never stepped.
    std::int64_t monotonicNs() override;
    std::optional<std::tm> localTime(std::int64_t unixSeconds) override;
    void sleepSeconds(unsigned seconds) override;
    void sleepMicroseconds(unsigned microseconds) override;
    void startThread(std::function<void()> entry) override;
    bool stopRequested() override;
    // Without a scheduler the caller's wait ends the run (SimulationEnded);
    // with one, virtual time passes until a stop is requested or the
    // timeout has passed, and until every daemon thread has ended.
    bool waitForStopRequest(Deadline timeout) override;
    void joinThreads() override;
    void lock(Mutex &mutex) override ACQUIRE(mutex);
    void writeError(std::string_view text) override;
    // Recorded with their time: notifications().
    void notifyServiceManager(std::string_view state) override;
    std::optional<std::chrono::microseconds> watchdogInterval() override;
    int processId() override;
    [[noreturn]] void abortProcess() override;

    // ---- set-up and files of the tree
    // The board's usual tree: /usr/bin/Zarvent with its tools and bitstream,
    // /ramcache/zarvent, /ftpdir, /etc/network, /dev, and the lines the system
    // provides: 85 (output, level 1) and 176 (input, level 1).
    void boardTree();
    const std::string &root() const;
    // Host path of a board path (absolute, or relative to /usr/bin/Zarvent).
    std::string hostPath(const std::string &boardPath) const;
    // Writes text to a board path, parents created.
    void writeFile(const std::string &boardPath, const std::string &text);
    std::optional<std::string> readFile(const std::string &boardPath) const;
    bool exists(const std::string &boardPath) const;
    // Opens for writing, creating, removing or renaming under a board
    // directory fail with EROFS while it is read-only.
    void setReadOnly(const std::string &boardDirectory, bool readOnly);
    // Every open of the board path fails with the given errno (0: no longer).
    void failOpen(const std::string &boardPath, int error);
    // The RAM disk's size as mkfs made it: blocks of 1 KiB and inodes.
    void setRamDisk(std::uint64_t blocks, std::uint64_t inodes);
    // The RAM disk is full: writes to its files fail with ENOSPC (noSpace),
    // new files cannot be made (noInodes), and it reports itself so.
    void setRamDiskFull(bool noSpace, bool noInodes);
    // Board paths outside /ramcache/zarvent the daemon has opened for writing
    // (sysfs and the SPI device aside), each once.
    std::vector<std::string> writtenPaths() const;

    // ---- clock
    std::int64_t nowUs() const;
    void setNowUs(std::int64_t us);
    // The system clock stepped by deltaUs (ntpd stepping it): the realtime
    // clock, local time and the tools' time move, the pulse does not.
    void stepClock(std::int64_t deltaUs);
    // Virtual time a command costs before it runs (0 unless set).
    void setCommandCostUs(std::int64_t us);

    // ---- commands
    // Every run of exactly this line prints output (rules win over the models).
    void onCommand(const std::string &line, const std::string &output);
    // The next run of this line prints output; such answers are used in order
    // before any standing rule.
    void onCommandOnce(const std::string &line, const std::string &output);
    // The line cannot be started (startCommand returns nullptr).
    void failCommand(const std::string &line);
    // Command lines whose program is this tool print nothing, as a shell does
    // for a missing program.
    void setToolAbsent(const std::string &tool, bool absent);
    // Every command line whose first program is `program` (as written: "ntpq",
    // "./spiWrite", "echo"), or that is exactly `program`, misbehaves so.
    void setToolFault(const std::string &program, ToolFault fault);
    std::vector<CommandRecord> commands() const;
    // The commands from the from-th on.
    std::vector<CommandRecord> commands(std::size_t from) const;
    std::size_t countCommand(const std::string &line) const;
    // Index of the first command equal to line at or after from, or -1.
    long findCommand(const std::string &line, std::size_t from = 0) const;
    void clearCommands();
    // Forgets the commands, levels and DAC words recorded so far.
    void dropHistory();

    // ---- FPGA registers behind spiWrite
    void setRegister(int reg, std::uint64_t value);
    std::uint64_t getRegister(int reg) const;
    // A configured FPGA answers "AA AA A5" to writes; an unconfigured one "FF FF FF".
    void setFpgaConfigured(bool configured);
    bool fpgaConfigured() const;
    void setRegisterToolFault(RegisterToolFault fault);
    // Writes to registers 1 and 2 whose value is not one the register tool
    // printed for register 2 or 48 (bits 0 to 2 aside, which the daemon sets
    // and clears): a value that did not come from the register.
    int unreadRegisterWrites() const;
    // The loader fails to configure the FPGA (false: it works again).
    void setLoaderBroken(bool broken);
    // Called (without the board's lock) for every register read, before the
    // value is printed, and for every register write.
    void setRegisterHooks(RegisterReadHook onRead, RegisterWriteHook onWrite);
    int loaderRuns() const;

    // ---- ntpd and the kernel clock
    void setPeer(Peer peer);
    void setRmcStatus(char status);
    char rmcStatus() const;
    void setTai(int tai);
    static std::string formatNtptime(std::int64_t unixUs, int tai);
    static std::string formatClockvar(std::int64_t unixUs, char status);
    std::string eth0Address() const;
    bool ramDiskMounted() const;

    // ---- GPIO (sysfs semantics)
    void provideLine(int line, bool output, int level);
    // The next read of the line's value blocks for us of virtual time (a
    // driver that does not answer).
    void holdNextRead(int line, std::int64_t us);
    void setInput(int line, int level);
    // The next reads of the line return these levels, then its level again.
    void queueReads(int line, std::vector<int> levels);
    // The line reads 1 during the first highUs of every period (0: off).
    void setPulse(int line, std::int64_t highUs, std::int64_t periodUs = 1000000);
    int level(int line) const; // -1 when not exported
    bool exported(int line) const;
    std::string direction(int line) const; // "in", "out" or "" when not exported
    std::string edge(int line) const;
    std::size_t reads(int line) const;
    std::vector<LevelRecord> levels() const;
    // Bytes of the last write to the line's value file through a descriptor.
    std::string lastWrite(int line) const;
    // The DAC words decoded so far, from the from-th on.
    std::vector<DacWord> dacWords(std::size_t from = 0) const;
    // Descriptors open on the board's virtual files (sysfs, SPI device).
    int openDescriptors() const;

    // ---- SPI capture device
    void setSpiPresent(bool present);
    void failSpi(SpiOp op);
    void setSpiReply(std::span<const std::uint8_t> reply);
    int spiExchanges() const;
    SpiRecord lastSpi() const;

    // ---- the process
    std::string errorOutput() const; // all the daemon wrote to standard error
    bool aborted() const;
    // SIGTERM to the daemon: stopRequested() is true from now on (false again
    // with requestStop(false), for a daemon started after it).
    void requestStop(bool stop = true);
    // systemd's watchdog as the daemon will find it (nothing: none).
    void setWatchdogInterval(std::optional<std::chrono::microseconds> interval);
    // What the daemon sent to the service manager, with the time.
    std::vector<std::pair<std::int64_t, std::string>> notifications() const;

    // ---- threads
    std::size_t threadCount() const;
    // Unit tests: starts the recorded threads as real, concurrent threads.
    void runRecordedThreads();
    // Ends the run: later seam calls of daemon threads throw SimulationEnded;
    // waits for the threads to end.
    void stop();
    void attachScheduler(Scheduler *scheduler);

  private:
    Scheduler &mainWaitScheduler();

    struct State;
    std::unique_ptr<State> state_;
};

} // namespace zarvent::sim
