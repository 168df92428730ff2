// What every fuzz target shares: the entry point libFuzzer calls, the check
// that stops a run on a broken contract, an exactly-sized copy of the text
// under test, strtol as the reference for numbers, and an in-memory platform
// whose files and command outputs arrive in pieces, as a pipe delivers them.
#pragma once

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/platform.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace zarvent::fuzz {

// A broken contract: libFuzzer saves the input that found it.
inline void require(bool holds)
{
    if (!holds)
        __builtin_trap();
}

// The next parameter byte of the input, 0 once it is used up.
inline std::uint8_t take(const std::uint8_t *&data, std::size_t &size)
{
    if (size == 0)
        return 0;
    --size;
    return *data++;
}

// The text in a heap block of exactly its size: ASan reports any read past it.
class Text {
  public:
    Text(const void *data, std::size_t size) : bytes_(new char[size]), size_(size)
    {
        if (size > 0)
            std::memcpy(bytes_.get(), data, size);
    }
    std::string_view view() const
    {
        return {bytes_.get(), size_};
    }

  private:
    std::unique_ptr<char[]> bytes_;
    std::size_t size_;
};

// What strtol makes of the text as a C string (a NUL ends it): a value when
// it found a number and the number fits 32 bits.
inline std::optional<std::int32_t> strtolValue(std::string_view text, int base)
{
    const std::string copy(text);
    char *end = nullptr;
    errno = 0;
    const long long value = std::strtoll(copy.c_str(), &end, base);
    if (end == copy.c_str() || errno == ERANGE ||
        value < std::numeric_limits<std::int32_t>::min() ||
        value > std::numeric_limits<std::int32_t>::max())
        return std::nullopt;
    return static_cast<std::int32_t>(value);
}

class FakePlatform final : public Platform {
  public:
    std::map<std::string, std::string> files;
    // What a command line prints; nothing when it cannot be started.
    std::function<std::optional<std::string>(const std::string &)> commands;
    std::vector<std::size_t> pieces{4096}; // the most each read or write moves, in turn
    int started = 0;
    int waited = 0;
    std::size_t unreadAtWait = 0; // output a command still held when it was closed

    std::size_t openFds() const
    {
        return fds_.size();
    }
    std::unique_ptr<Command> startCommand(const std::string &line, PipeMode, Deadline) override
    {
        auto output = commands(line);
        if (!output)
            return nullptr;
        ++started;
        return std::make_unique<Output>(*this, std::move(*output));
    }
    int open(const std::string &path, int flags) override
    {
        if (!files.contains(path) && (flags & O_CREAT) == 0)
            return -1;
        if (files.contains(path) && (flags & O_EXCL) != 0)
            return -1;
        if ((flags & O_TRUNC) != 0 || !files.contains(path))
            files[path].clear();
        fds_[++lastFd_] = {path, 0};
        return lastFd_;
    }
    long read(int fd, std::span<char> into) override
    {
        Fd &f = entry(fd);
        return give(files[f.path], f.at, into);
    }
    long write(int fd, std::span<const char> from) override
    {
        const std::size_t n = std::min(from.size(), piece());
        files[entry(fd).path].append(from.data(), n);
        return static_cast<long>(n);
    }
    int close(int fd) override
    {
        require(fds_.erase(fd) == 1); // never a descriptor twice
        return 0;
    }
    bool makeDirectory(const std::string &) override
    {
        return false;
    }
    bool removeFile(const std::string &path) override
    {
        return files.erase(path) > 0;
    }
    void lock(Mutex &mutex) override ACQUIRE(mutex)
    {
        mutex.lock();
    }
    // clang-format off
    // No parser reaches these.
    long readAt(int, std::span<char>, std::int64_t) override { return -1; }
    long writeAt(int, std::span<const char>, std::int64_t) override { return -1; }
    int ioctl(int, unsigned long, void *) override { return -1; }
    std::vector<std::string> listDirectory(const std::string &) override { return {}; }
    bool renameFile(const std::string &from, const std::string &to) override
    {
        auto node = files.extract(from);
        if (node.empty()) return false;
        node.key() = to;
        files.insert_or_assign(to, std::move(node.mapped()));
        return true;
    }
    std::optional<std::int64_t> fileSize(const std::string &) override { return {}; }
    std::optional<FileSystemUsage> fileSystemUsage(const std::string &) override { return {}; }
    std::int64_t realtimeNs() override { return 0; }
    std::optional<std::tm> localTime(std::int64_t) override { return {}; }
    void sleepSeconds(unsigned) override {}
    void sleepMicroseconds(unsigned) override {}
    void startThread(std::function<void()>) override { __builtin_trap(); }
    bool stopRequested() override { return false; }
    bool waitForStopRequest(Deadline) override { __builtin_trap(); }
    void joinThreads() override { __builtin_trap(); }
    void grantFinalGrace() override { __builtin_trap(); }
    std::optional<std::uint64_t> deviceOf(const std::string &) override { return {}; }
    int tryLockFile(int) override { return -1; }
    std::int64_t monotonicNs() override { return 0; }
    void notifyServiceManager(std::string_view) override {}
    std::optional<std::chrono::microseconds> watchdogInterval() override { return {}; }
    int processId() override { return 1; }
    void writeError(std::string_view) override {}
    [[noreturn]] void abortProcess() override { __builtin_trap(); }
    // clang-format on

  private:
    struct Fd {
        std::string path;
        std::size_t at;
    };
    class Output final : public Command {
      public:
        Output(FakePlatform &platform, std::string text)
            : platform_(platform), text_(std::move(text))
        {}
        long read(std::span<char> into) override
        {
            return platform_.give(text_, at_, into);
        }
        int wait() override
        {
            ++platform_.waited;
            platform_.unreadAtWait += text_.size() - at_;
            return 0;
        }
        bool timedOut() const override
        {
            return false;
        }

      private:
        FakePlatform &platform_;
        std::string text_;
        std::size_t at_ = 0;
    };

    std::size_t piece()
    {
        return pieces[next_++ % pieces.size()];
    }
    // The next piece of text from at on.
    long give(const std::string &text, std::size_t &at, std::span<char> into)
    {
        const std::size_t n = std::min({into.size(), piece(), text.size() - at});
        std::memcpy(into.data(), text.data() + at, n);
        at += n;
        return static_cast<long>(n);
    }
    Fd &entry(int fd)
    {
        const auto f = fds_.find(fd);
        require(f != fds_.end()); // a descriptor the daemon never opened, or closed already
        return f->second;
    }

    std::map<int, Fd> fds_;
    int lastFd_ = 2;
    std::size_t next_ = 0;
};

} // namespace zarvent::fuzz
