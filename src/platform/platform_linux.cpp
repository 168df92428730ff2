#include "platform/platform_linux.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

extern char **environ;

namespace zarvent {

namespace {

// A command line run by /bin/sh -c, as popen runs it, with one pipe to the
// daemon: the child's standard output (PipeMode::Read) or its standard input
// (PipeMode::Write). Both pipe ends are close-on-exec, so the child inherits
// none of the daemon's descriptors but the one end dup2'd onto 0 or 1.
class ShellCommand final : public Command {
  public:
    ShellCommand(pid_t pid, int fd) : pid_(pid), fd_(fd) {}
    ~ShellCommand() override
    {
        if (pid_ > 0)
            wait();
    }
    ShellCommand(const ShellCommand &) = delete;
    ShellCommand &operator=(const ShellCommand &) = delete;

    long read(std::span<char> into) override
    {
        if (fd_ < 0)
            return -1;
        for (;;) {
            const ssize_t got = ::read(fd_, into.data(), into.size());
            if (got >= 0 || errno != EINTR)
                return static_cast<long>(got);
        }
    }

    int wait() override
    {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
        if (pid_ <= 0)
            return -1;
        int status = 0;
        pid_t done;
        do {
            done = ::waitpid(pid_, &status, 0);
        } while (done < 0 && errno == EINTR);
        pid_ = -1;
        return done < 0 ? -1 : status;
    }

  private:
    pid_t pid_;
    int fd_;
};

} // namespace

LinuxPlatform::LinuxPlatform()
{
    sigemptyset(&stopSignals_);
    sigaddset(&stopSignals_, SIGTERM);
    sigaddset(&stopSignals_, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &stopSignals_, nullptr);
}

LinuxPlatform::~LinuxPlatform()
{
    // Threads still running here (no waitForStop) end with the process.
    const std::lock_guard lock(threadsMutex_);
    for (std::thread &thread : threads_)
        if (thread.joinable())
            thread.detach();
}

std::unique_ptr<Command> LinuxPlatform::startCommand(const std::string &line, PipeMode mode)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return nullptr;
    const bool reading = mode == PipeMode::Read;
    const int childEnd = reading ? ends[1] : ends[0];
    const int ourEnd = reading ? ends[0] : ends[1];

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childEnd, reading ? STDOUT_FILENO : STDIN_FILENO);
    // The daemon's threads keep SIGTERM and SIGINT blocked for waitForStop();
    // a tool starts with no signal blocked, as from a shell.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    const char *argv[] = {"sh", "-c", line.c_str(), nullptr};
    pid_t pid = -1;
    const int rc =
        ::posix_spawn(&pid, "/bin/sh", &actions, &attributes, const_cast<char **>(argv), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    ::close(childEnd);
    if (rc != 0) {
        ::close(ourEnd);
        errno = rc;
        return nullptr;
    }
    return std::make_unique<ShellCommand>(pid, ourEnd);
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
    DIR *dir = ::opendir(path.c_str()); // glibc opens it close-on-exec
    if (dir == nullptr)
        return names;
    while (const dirent *entry = ::readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    ::closedir(dir);
    return names;
}

bool LinuxPlatform::removeFile(const std::string &path)
{
    return ::unlink(path.c_str()) == 0;
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

std::optional<FileSystemUsage> LinuxPlatform::fileSystemUsage(const std::string &path)
{
    struct statvfs vfs {};
    if (::statvfs(path.c_str(), &vfs) != 0)
        return std::nullopt;
    return FileSystemUsage{vfs.f_blocks, vfs.f_bfree, vfs.f_files, vfs.f_ffree};
}

std::int64_t LinuxPlatform::realtimeNs()
{
    // Full resolution: time() reads the kernel's coarse clock, which can
    // still show the previous second a few milliseconds after the boundary.
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
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
    timespec left{static_cast<std::time_t>(seconds), 0};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
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
        const std::lock_guard lock(threadsMutex_);
        threads_.push_back(std::move(thread));
    } catch (const std::system_error &) {
    }
}

bool LinuxPlatform::stopRequested()
{
    return stop_.load();
}

void LinuxPlatform::waitForStop()
{
    // The stop signals are blocked in every thread, so they stay pending
    // until taken here; no handler runs inside the daemon's other threads.
    int signal = 0;
    while (::sigwait(&stopSignals_, &signal) != 0) {
    }
    stop_.store(true);
    std::vector<std::thread> threads;
    {
        const std::lock_guard lock(threadsMutex_);
        threads.swap(threads_);
    }
    for (std::thread &thread : threads)
        thread.join();
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

void LinuxPlatform::abortProcess()
{
    std::abort();
}

} // namespace zarvent
