// The daemon's only door to the operating system.
//
// Every contact of the daemon logic with the OS goes through this interface,
// passed by reference to the objects that need it. Two implementations exist:
// LinuxPlatform (platform_linux.cpp), a thin layer over libc for the board,
// and the simulator's virtual board (sim/), which answers the same calls from
// a model of the board in virtual time. The production binary links only the
// first.
//
// Calls that fail return -1 (or an empty value) and leave the reason in
// errno, as the system calls they stand for do.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/mutex.h"

namespace zarvent {

// popen's two modes: "r" reads the command's output; "w" gives it a pipe on
// its standard input (never written to) and leaves its output on ours.
enum class PipeMode { Read, Write };

// How long a command may take, from its start to its end.
using Deadline = std::chrono::milliseconds;

// A started command line (the child of popen), in a process group of its own.
class Command {
  public:
    virtual ~Command() = default;
    // Reads up to into.size() bytes of the command's output (PipeMode::Read):
    // the count read; 0 at the end of the output, which is also when the
    // command itself has ended and left nothing more in the pipe (a
    // background child that still holds the pipe does not count); -1 on an
    // error or once the deadline has passed.
    virtual long read(std::span<char> into) = 0;
    // Closes the daemon's end of the pipe, waits for the command to end and
    // returns its wait status (-1 when it cannot be had). At the deadline
    // the command's whole process group is killed and reaped.
    virtual int wait() = 0;
    // True once the deadline passed before the command ended: its group was
    // killed and what it printed is not to be used.
    virtual bool timedOut() const = 0;
};

struct FileSystemUsage {
    std::uint64_t blockSize = 1024; // bytes in each block counted below
    std::uint64_t blocks = 0;
    std::uint64_t freeBlocks = 0;
    std::uint64_t inodes = 0;
    std::uint64_t freeInodes = 0;
};

// After a stop request, the longest a command still runs: long enough for a
// tool that was about to finish, short enough that a stop under systemd or
// SysV never has to fall back on SIGKILL.
constexpr Deadline kStopGrace{5000};

class Platform {
  public:
    virtual ~Platform() = default;

    // ---- commands
    // Starts the command line in a shell, in a process group of its own,
    // with deadline from now; nullptr when it cannot be started. After a
    // stop request no command outlasts the request by more than kStopGrace,
    // and none starts after it.
    virtual std::unique_ptr<Command> startCommand(const std::string &line, PipeMode mode,
                                                  Deadline deadline) = 0;

    // ---- descriptors (open(2) flags; O_CREAT makes the file with mode 0666;
    // every descriptor is close-on-exec)
    virtual int open(const std::string &path, int flags) = 0;
    virtual long read(int fd, std::span<char> into) = 0;
    virtual long readAt(int fd, std::span<char> into, std::int64_t offset) = 0;
    virtual long write(int fd, std::span<const char> from) = 0;
    virtual long writeAt(int fd, std::span<const char> from, std::int64_t offset) = 0;
    virtual int close(int fd) = 0;
    // The spidev requests on a descriptor of the SPI device.
    virtual int ioctl(int fd, unsigned long request, void *argument) = 0;

    // ---- directories and the file system
    // Names in a directory, without "." and ".."; empty when it cannot be read.
    virtual std::vector<std::string> listDirectory(const std::string &path) = 0;
    virtual bool removeFile(const std::string &path) = 0;
    // Makes a directory (mode 0755); true when it is there afterwards.
    virtual bool makeDirectory(const std::string &path) = 0;
    virtual bool renameFile(const std::string &from, const std::string &to) = 0;
    virtual std::optional<std::int64_t> fileSize(const std::string &path) = 0;
    virtual std::optional<FileSystemUsage> fileSystemUsage(const std::string &path) = 0;
    // The device a path lies on (stat's st_dev): a mount point lies on
    // another device than its parent.
    virtual std::optional<std::uint64_t> deviceOf(const std::string &path) = 0;
    // An exclusive lock on an open file, not waited for (flock LOCK_EX |
    // LOCK_NB): 0, or -1 with EWOULDBLOCK when another process holds it.
    virtual int tryLockFile(int fd) = 0;

    // ---- clock
    // The realtime clock at full resolution, in nanoseconds since 1970.
    virtual std::int64_t realtimeNs() = 0;
    // A clock that never steps, for measuring how long things take.
    virtual std::int64_t monotonicNs() = 0;
    // Broken-down local time of a Unix second in the zone in force now.
    virtual std::optional<std::tm> localTime(std::int64_t unixSeconds) = 0;
    virtual void sleepSeconds(unsigned seconds) = 0;
    virtual void sleepMicroseconds(unsigned microseconds) = 0;

    // ---- threads and locks
    // Starts a thread running entry.
    virtual void startThread(std::function<void()> entry) = 0;
    // True once the daemon has been asked to stop (SIGTERM or SIGINT on the
    // board). Every loop of the daemon's threads looks at it.
    virtual bool stopRequested() = 0;
    // Blocks the calling thread without using the processor until the daemon
    // is asked to stop (true) or timeout has passed (false).
    virtual bool waitForStopRequest(Deadline timeout) = 0;
    // Blocks until every thread started by startThread has ended.
    virtual void joinThreads() = 0;
    // Once every thread has ended after a stop request: the daemon's last
    // commands (what it withdraws from the FPGA) get kStopGrace of their own,
    // from now, however long the threads took.
    virtual void grantFinalGrace() = 0;
    // Takes a mutex that its holder keeps across other calls of this
    // interface (the read-modify-write of FPGA register 2 runs two commands).
    virtual void lock(Mutex &mutex) ACQUIRE(mutex) = 0;

    // ---- the process
    virtual void writeError(std::string_view text) = 0;
    // The service manager's notification socket (systemd's NOTIFY_SOCKET):
    // sends one state ("READY=1", "WATCHDOG=1", ...); nothing without one.
    virtual void notifyServiceManager(std::string_view state) = 0;
    // How often the service manager wants "WATCHDOG=1" at the latest
    // (systemd's WATCHDOG_USEC); nothing when it watches no watchdog.
    virtual std::optional<std::chrono::microseconds> watchdogInterval() = 0;
    virtual int processId() = 0;
    // Ends the whole daemon at once (abort).
    [[noreturn]] virtual void abortProcess() = 0;
};

// Holds a mutex through Platform::lock for a read-modify-write that runs
// commands while it holds it.
class SCOPED_CAPABILITY PlatformLocker {
  public:
    PlatformLocker(Platform &platform, Mutex &mutex) ACQUIRE(mutex) : mutex_(mutex)
    {
        platform.lock(mutex_);
    }
    ~PlatformLocker() RELEASE()
    {
        mutex_.unlock();
    }
    PlatformLocker(const PlatformLocker &) = delete;
    PlatformLocker &operator=(const PlatformLocker &) = delete;

  private:
    Mutex &mutex_;
};

// Owner of one descriptor from Platform::open: closes it once.
class UniqueFd {
  public:
    UniqueFd() = default;
    UniqueFd(Platform &platform, int fd) : platform_(&platform), fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept
        : platform_(other.platform_), fd_(std::exchange(other.fd_, -1))
    {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        if (this != &other) {
            reset();
            platform_ = other.platform_;
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd()
    {
        reset();
    }

    int get() const
    {
        return fd_;
    }
    bool isValid() const
    {
        return fd_ >= 0;
    }
    void reset()
    {
        if (fd_ >= 0 && platform_ != nullptr)
            platform_->close(fd_);
        fd_ = -1;
    }
    // Gives up ownership: the descriptor is the caller's to close.
    [[nodiscard]] int release()
    {
        return std::exchange(fd_, -1);
    }

  private:
    Platform *platform_ = nullptr;
    int fd_ = -1;
};

} // namespace zarvent
