#include "platform/platform_linux.h"

#include <algorithm>
#include <memory>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace zarvent {

std::int64_t monotonicClockNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

namespace {

// An open directory stream, closed when it goes out of scope.
struct DirectoryCloser {
    void operator()(DIR *dir) const
    {
        ::closedir(dir);
    }
};
using Directory = std::unique_ptr<DIR, DirectoryCloser>;

} // namespace

void SystemFd::reset()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

LinuxPlatform::LinuxPlatform()
{
    // A reader that went away (a closed standard error, a tool's pipe) must
    // not end the daemon: a failed write is an error the caller sees.
    (void)::signal(SIGPIPE, SIG_IGN);
    // systemd's notification socket and watchdog, read once here, before any
    // thread runs, and taken out of the environment the tools inherit.
    if (const char *socket = std::getenv("NOTIFY_SOCKET"))
        notifySocket_ = socket;
    const char *usec = std::getenv("WATCHDOG_USEC");
    const char *pid = std::getenv("WATCHDOG_PID");
    if (usec != nullptr && (pid == nullptr || std::strtol(pid, nullptr, 10) == ::getpid())) {
        char *end = nullptr;
        const long long value = std::strtoll(usec, &end, 10);
        if (end != usec && *end == '\0' && value > 0)
            watchdog_ = std::chrono::microseconds(value);
    }
    ::unsetenv("NOTIFY_SOCKET");
    ::unsetenv("WATCHDOG_USEC");
    ::unsetenv("WATCHDOG_PID");
    // ntpq -p names its peers through the resolver; a name server that does
    // not answer would hold it for glibc's 5 s and two attempts per server
    // and look-up. One attempt of a second each keeps its worst case within
    // the deadline the runner gives it (kPeersDeadline).
    ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 1);
    sigemptyset(&stopSignals_);
    sigaddset(&stopSignals_, SIGTERM);
    sigaddset(&stopSignals_, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &stopSignals_, nullptr);
}

LinuxPlatform::~LinuxPlatform()
{
    // Threads still running here (no waitForStop) end with the process.
    const MutexLocker lock(threadsMutex_);
    for (std::thread &thread : threads_)
        if (thread.joinable())
            thread.detach();
}

int LinuxPlatform::open(const std::string &path, int flags)
{
    return ::open(path.c_str(), flags | O_CLOEXEC, 0666);
}

long LinuxPlatform::read(int fd, std::span<char> into)
{
    return static_cast<long>(::read(fd, into.data(), into.size()));
}

long LinuxPlatform::readAt(int fd, std::span<char> into, std::int64_t offset)
{
    return static_cast<long>(::pread(fd, into.data(), into.size(), static_cast<off_t>(offset)));
}

long LinuxPlatform::write(int fd, std::span<const char> from)
{
    return static_cast<long>(::write(fd, from.data(), from.size()));
}

long LinuxPlatform::writeAt(int fd, std::span<const char> from, std::int64_t offset)
{
    return static_cast<long>(::pwrite(fd, from.data(), from.size(), static_cast<off_t>(offset)));
}

int LinuxPlatform::close(int fd)
{
    return ::close(fd);
}

int LinuxPlatform::ioctl(int fd, unsigned long request, void *argument)
{
    return ::ioctl(fd, request, argument);
}

std::vector<std::string> LinuxPlatform::listDirectory(const std::string &path)
{
    std::vector<std::string> names;
    const Directory dir(::opendir(path.c_str())); // glibc opens it close-on-exec
    if (!dir)
        return names;
    while (const dirent *entry = ::readdir(dir.get())) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    return names;
}

bool LinuxPlatform::removeFile(const std::string &path)
{
    return ::unlink(path.c_str()) == 0;
}

bool LinuxPlatform::makeDirectory(const std::string &path)
{
    return ::mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

bool LinuxPlatform::renameFile(const std::string &from, const std::string &to)
{
    return ::rename(from.c_str(), to.c_str()) == 0;
}

std::optional<std::int64_t> LinuxPlatform::fileSize(const std::string &path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return std::nullopt;
    return static_cast<std::int64_t>(st.st_size);
}

std::optional<std::uint64_t> LinuxPlatform::deviceOf(const std::string &path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0)
        return std::nullopt;
    return static_cast<std::uint64_t>(st.st_dev);
}

int LinuxPlatform::tryLockFile(int fd)
{
    return ::flock(fd, LOCK_EX | LOCK_NB);
}

std::optional<FileSystemUsage> LinuxPlatform::fileSystemUsage(const std::string &path)
{
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0)
        return std::nullopt;
    return FileSystemUsage{vfs.f_frsize, vfs.f_blocks, vfs.f_bfree, vfs.f_files, vfs.f_ffree};
}

std::int64_t LinuxPlatform::realtimeNs()
{
    // Full resolution: time() reads the kernel's coarse clock, which can
    // still show the previous second a few milliseconds after the boundary.
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

std::int64_t LinuxPlatform::monotonicNs()
{
    return monotonicClockNs();
}

std::optional<std::tm> LinuxPlatform::localTime(std::int64_t unixSeconds)
{
    // localtime_r, unlike localtime, need not look at the zone again; tzset
    // re-reads /etc/localtime when it has changed, so a zone set while the
    // daemon runs takes effect at the next conversion.
    ::tzset();
    const std::time_t t = static_cast<std::time_t>(unixSeconds);
    std::tm local{};
    if (::localtime_r(&t, &local) == nullptr)
        return std::nullopt;
    return local;
}

void LinuxPlatform::sleepSeconds(unsigned seconds)
{
    // The loops' pauses of seconds end early at a stop request, so that a
    // stop takes the time of the commands under way, not of a pause.
    std::unique_lock lock(stopMutex_);
    stopWake_.wait_for(lock, std::chrono::seconds(seconds), [this] { return stop_.load(); });
}

void LinuxPlatform::sleepMicroseconds(unsigned microseconds)
{
    timespec left{static_cast<std::time_t>(microseconds / 1'000'000),
                  static_cast<long>(microseconds % 1'000'000) * 1000};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void LinuxPlatform::startThread(std::function<void()> entry)
{
    // A thread that cannot be started is not reported; the others are
    // started regardless.
    try {
        std::thread thread(std::move(entry));
        const MutexLocker lock(threadsMutex_);
        threads_.push_back(std::move(thread));
    } catch (const std::system_error &) {
    }
}

bool LinuxPlatform::stopRequested()
{
    return stop_.load();
}

bool LinuxPlatform::waitForStopRequest(Deadline timeout)
{
    // The stop signals are blocked in every thread, so they stay pending
    // until taken here; no handler runs inside the daemon's other threads.
    if (stop_.load())
        return true;
    const timespec wait{static_cast<std::time_t>(timeout.count() / 1000),
                        static_cast<long>(timeout.count() % 1000) * 1'000'000};
    if (::sigtimedwait(&stopSignals_, nullptr, &wait) < 0)
        return false; // the time passed, or another signal woke us
    stopAtNs_.store(monotonicClockNs());
    {
        const std::lock_guard lock(stopMutex_);
        stop_.store(true);
    }
    stopWake_.notify_all();
    return true;
}

void LinuxPlatform::joinThreads()
{
    std::vector<std::thread> threads;
    {
        const MutexLocker lock(threadsMutex_);
        threads.swap(threads_);
    }
    for (std::thread &thread : threads)
        thread.join();
}

void LinuxPlatform::grantFinalGrace()
{
    if (stop_.load())
        stopAtNs_.store(monotonicClockNs());
}

void LinuxPlatform::lock(Mutex &mutex)
{
    mutex.lock();
}

void LinuxPlatform::writeError(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t done = ::write(STDERR_FILENO, text.data(), text.size());
        if (done < 0 && errno == EINTR)
            continue;
        if (done <= 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(done));
    }
}

void LinuxPlatform::notifyServiceManager(std::string_view state)
{
    // systemd's notification protocol: one datagram on a Unix socket, its
    // path in NOTIFY_SOCKET, '@' for the abstract namespace.
    if (notifySocket_.empty() || notifySocket_.size() >= sizeof(sockaddr_un::sun_path))
        return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, notifySocket_.data(), notifySocket_.size());
    if (address.sun_path[0] == '@')
        address.sun_path[0] = '\0';
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + notifySocket_.size());
    const SystemFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!socket.isValid())
        return;
    // Never blocks the watchdog's thread on a full queue.
    (void)::sendto(socket.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                   reinterpret_cast<const sockaddr *>(&address), length);
}

std::optional<std::chrono::microseconds> LinuxPlatform::watchdogInterval()
{
    return watchdog_;
}

int LinuxPlatform::processId()
{
    return static_cast<int>(::getpid());
}

void LinuxPlatform::abortProcess()
{
    std::abort();
}

} // namespace zarvent
