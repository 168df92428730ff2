// The OS seam on the board: each call a thin layer over libc.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <string>
#include <utility>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace zarvent {

// CLOCK_MONOTONIC in nanoseconds.
std::int64_t monotonicClockNs();

// Owner of one descriptor the Linux seam opened itself (pipe ends, sockets):
// closed once, with close(2).
class SystemFd {
  public:
    SystemFd() = default;
    explicit SystemFd(int fd) : fd_(fd) {}
    SystemFd(SystemFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    SystemFd &operator=(SystemFd &&other) noexcept
    {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    SystemFd(const SystemFd &) = delete;
    SystemFd &operator=(const SystemFd &) = delete;
    ~SystemFd()
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
    void reset();
    [[nodiscard]] int release()
    {
        return std::exchange(fd_, -1);
    }

  private:
    int fd_ = -1;
};

class LinuxPlatform final : public Platform {
  public:
    // Blocks SIGTERM and SIGINT in the calling thread, so that every thread
    // started later has them blocked too and only waitForStop() takes them.
    // Construct it before any thread starts.
    LinuxPlatform();
    ~LinuxPlatform() override;
    LinuxPlatform(const LinuxPlatform &) = delete;
    LinuxPlatform &operator=(const LinuxPlatform &) = delete;

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
    std::optional<std::uint64_t> deviceOf(const std::string &path) override;
    int tryLockFile(int fd) override;
    std::int64_t realtimeNs() override;
    std::int64_t monotonicNs() override;
    std::optional<std::tm> localTime(std::int64_t unixSeconds) override;
    void sleepSeconds(unsigned seconds) override;
    void sleepMicroseconds(unsigned microseconds) override;
    void startThread(std::function<void()> entry) override;
    bool stopRequested() override;
    bool waitForStopRequest(Deadline timeout) override;
    void joinThreads() override;
    void grantFinalGrace() override;
    void lock(Mutex &mutex) override ACQUIRE(mutex);
    void writeError(std::string_view text) override;
    void notifyServiceManager(std::string_view state) override;
    std::optional<std::chrono::microseconds> watchdogInterval() override;
    int processId() override;
    [[noreturn]] void abortProcess() override;

    // When the stop was requested (monotonic), 0 before: commands then get
    // kStopGrace at most.
    std::int64_t stopAtNs() const
    {
        return stopAtNs_.load();
    }
    // A killed command that could not be reaped yet: reaped at a later start.
    void adoptUnreaped(pid_t pid, const std::string &program) EXCLUDES(unreapedMutex_);

  private:
    // Reaps what it can; true when a killed command of program is still there.
    bool hasUnreaped(const std::string &program) EXCLUDES(unreapedMutex_);

    sigset_t stopSignals_;
    std::atomic<bool> stop_{false};
    // Guards no data (stop_ is atomic): taken around the store of stop_ and
    // by the pauses that wait on stopWake_, so that no pause misses the wake.
    std::mutex stopMutex_;
    std::condition_variable stopWake_;
    std::atomic<std::int64_t> stopAtNs_{0};
    std::string notifySocket_;
    std::optional<std::chrono::microseconds> watchdog_;
    Mutex unreapedMutex_;
    std::vector<std::pair<pid_t, std::string>> unreaped_ GUARDED_BY(unreapedMutex_);
    Mutex threadsMutex_;
    std::vector<std::thread> threads_ GUARDED_BY(threadsMutex_);
};

} // namespace zarvent
