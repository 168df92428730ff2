// The OS seam on the board: each call a thin layer over libc.
#pragma once

#include <signal.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/platform.h"

namespace zarvent {

class LinuxPlatform final : public Platform {
  public:
    // Blocks SIGTERM and SIGINT in the calling thread, so that every thread
    // started later has them blocked too and only waitForStop() takes them.
    // Construct it before any thread starts.
    LinuxPlatform();
    ~LinuxPlatform() override;
    LinuxPlatform(const LinuxPlatform &) = delete;
    LinuxPlatform &operator=(const LinuxPlatform &) = delete;

    std::unique_ptr<Command> startCommand(const std::string &line, PipeMode mode) override;
    int open(const std::string &path, int flags) override;
    long read(int fd, std::span<char> into) override;
    long readAt(int fd, std::span<char> into, std::int64_t offset) override;
    long write(int fd, std::span<const char> from) override;
    long writeAt(int fd, std::span<const char> from, std::int64_t offset) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void *argument) override;
    std::vector<std::string> listDirectory(const std::string &path) override;
    bool removeFile(const std::string &path) override;
    bool renameFile(const std::string &from, const std::string &to) override;
    std::optional<std::int64_t> fileSize(const std::string &path) override;
    std::optional<FileSystemUsage> fileSystemUsage(const std::string &path) override;
    std::int64_t realtimeNs() override;
    std::optional<std::tm> localTime(std::int64_t unixSeconds) override;
    void sleepSeconds(unsigned seconds) override;
    void sleepMicroseconds(unsigned microseconds) override;
    void startThread(std::function<void()> entry) override;
    bool stopRequested() override;
    void waitForStop() override;
    void lock(Mutex &mutex) override ACQUIRE(mutex);
    void writeError(std::string_view text) override;
    [[noreturn]] void abortProcess() override;

  private:
    sigset_t stopSignals_;
    std::atomic<bool> stop_{false};
    std::mutex threadsMutex_;
    std::vector<std::thread> threads_;
};

} // namespace zarvent
