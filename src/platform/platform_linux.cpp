#include "platform/platform_linux.h"

#include <algorithm>
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

namespace {

// How long read() waits for output before it looks whether the command has
// ended and whether the deadline or a stop has come. Tools that print and
// exit wake the poll at once; only a quiet tool, or a background child left
// holding the pipe, costs a look per slice.
constexpr int kSliceMs = 20;
// How long a killed group may take to be reaped. A tool in uninterruptible
// sleep (a wedged SPI controller) dies only when the driver lets it go; it is
// not waited for beyond this, but reaped later.
constexpr std::int64_t kReapGraceNs = 1'000'000'000;

// The program of a command line: its first word without the directory.
std::string programOf(const std::string &line)
{
    const std::string first = line.substr(0, line.find_first_of(" \t\n;|&"));
    return first.substr(first.rfind('/') + 1);
}

std::int64_t monotonicNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

void napNs(std::int64_t ns)
{
    timespec left{static_cast<std::time_t>(ns / 1'000'000'000),
                  static_cast<long>(ns % 1'000'000'000)};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

// A command line run by /bin/sh -c, as popen runs it, in a process group of
// its own, with one pipe to the daemon: the child's standard output
// (PipeMode::Read) or its standard input (PipeMode::Write). Both pipe ends are
// close-on-exec, so the child inherits none of the daemon's descriptors but
// the one end dup2'd onto 0 or 1.
class ShellCommand final : public Command {
  public:
    ShellCommand(LinuxPlatform &platform, std::string program, pid_t pid, int fd, bool reading,
                 std::int64_t deadlineNs)
        : platform_(platform), program_(std::move(program)), pid_(pid), fd_(fd), reading_(reading),
          deadlineNs_(deadlineNs)
    {}
    ~ShellCommand() override
    {
        if (pid_ > 0)
            wait();
    }
    ShellCommand(const ShellCommand &) = delete;
    ShellCommand &operator=(const ShellCommand &) = delete;

    long read(std::span<char> into) override
    {
        if (fd_ < 0 || timedOut_)
            return -1;
        // A command started for writing has no output in the pipe: its end
        // of the pipe is its standard input, closed by wait() as pclose does.
        if (!reading_)
            return 0;
        for (;;) {
            const std::int64_t left = remainingNs();
            if (left <= 0) {
                expire();
                return -1;
            }
            // Once the command has ended, its output is all in the pipe: what
            // is there is read, and an empty pipe is the end even while a
            // background child still holds its write end.
            const int waitMs =
                ended_ ? 0
                       : static_cast<int>(std::min<std::int64_t>(kSliceMs, left / 1'000'000 + 1));
            pollfd ready{fd_, POLLIN, 0};
            const int count = ::poll(&ready, 1, waitMs);
            if (count < 0 && errno != EINTR)
                return -1;
            if (count > 0) {
                const ssize_t got = ::read(fd_, into.data(), into.size());
                if (got >= 0)
                    return static_cast<long>(got);
                if (errno != EINTR && errno != EAGAIN)
                    return -1;
                continue;
            }
            if (count == 0 && ended_)
                return 0;
            if (count == 0)
                reapNoHang();
        }
    }

    int wait() override
    {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
        if (pid_ <= 0)
            return status_;
        std::int64_t napNsNext = 50'000;
        while (!reapNoHang()) {
            const std::int64_t left = remainingNs();
            if (left <= 0) {
                expire();
                break;
            }
            napNs(std::min(napNsNext, left));
            napNsNext = std::min<std::int64_t>(napNsNext * 2, 10'000'000);
        }
        pid_ = -1;
        return status_;
    }

    bool timedOut() const override
    {
        return timedOut_;
    }

  private:
    std::int64_t remainingNs() const
    {
        std::int64_t end = deadlineNs_;
        if (const std::int64_t stopAt = platform_.stopAtNs(); stopAt != 0)
            end = std::min(end, stopAt + std::chrono::nanoseconds(kStopGrace).count());
        return end - monotonicNow();
    }

    // True once the command has ended and been reaped (status_ set).
    bool reapNoHang()
    {
        if (ended_)
            return true;
        int status = 0;
        pid_t done;
        do {
            done = ::waitpid(pid_, &status, WNOHANG);
        } while (done < 0 && errno == EINTR);
        if (done == 0)
            return false;
        ended_ = true;
        status_ = done < 0 ? -1 : status;
        return true;
    }

    // The deadline has passed: the whole group goes, whatever it started.
    void expire()
    {
        timedOut_ = true;
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
        if (pid_ <= 0 || ended_) {
            if (pid_ > 0)
                ::kill(-pid_, SIGKILL); // the command ended, its children did not
            pid_ = -1;
            status_ = -1;
            return;
        }
        ::kill(-pid_, SIGKILL);
        const std::int64_t giveUp = monotonicNow() + kReapGraceNs;
        std::int64_t nap = 50'000;
        while (!reapNoHang() && monotonicNow() < giveUp) {
            napNs(nap);
            nap = std::min<std::int64_t>(nap * 2, 10'000'000);
        }
        if (!ended_)
            platform_.adoptUnreaped(pid_, program_);
        pid_ = -1;
        status_ = -1;
    }

    LinuxPlatform &platform_;
    std::string program_;
    pid_t pid_;
    int fd_;
    bool reading_;
    std::int64_t deadlineNs_; // on the monotonic clock
    bool ended_ = false;
    bool timedOut_ = false;
    int status_ = -1;
};

} // namespace

LinuxPlatform::LinuxPlatform()
{
    // A reader that went away (a closed standard error, a tool's pipe) must
    // not end the daemon: a failed write is an error the caller sees.
    ::signal(SIGPIPE, SIG_IGN);
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

std::unique_ptr<Command> LinuxPlatform::startCommand(const std::string &line, PipeMode mode,
                                                     Deadline deadline)
{
    // A program whose killed command is still not gone (stuck in its
    // driver) gets no new one until it is: otherwise each cycle would add
    // another unkillable process. And after a stop's grace nothing starts.
    const std::string program = programOf(line);
    if (hasUnreaped(program) ||
        (stopAtNs() != 0 &&
         monotonicNow() > stopAtNs() + std::chrono::nanoseconds(kStopGrace).count())) {
        errno = EAGAIN;
        return nullptr;
    }
    const std::int64_t deadlineNs =
        monotonicNow() + std::chrono::duration_cast<std::chrono::nanoseconds>(deadline).count();
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return nullptr;
    const bool reading = mode == PipeMode::Read;
    const int childEnd = reading ? ends[1] : ends[0];
    const int ourEnd = reading ? ends[0] : ends[1];

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, childEnd, reading ? STDOUT_FILENO : STDIN_FILENO);
    // The daemon's threads keep SIGTERM and SIGINT blocked for
    // waitForStopRequest() and ignore SIGPIPE; a tool starts with no signal
    // blocked and SIGPIPE as usual, as from a shell. It leads a process group
    // of its own, so that at its deadline everything it started goes with it.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                              POSIX_SPAWN_SETPGROUP);
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
    return std::make_unique<ShellCommand>(*this, program, pid, ourEnd, reading, deadlineNs);
}

void LinuxPlatform::adoptUnreaped(pid_t pid, const std::string &program)
{
    const std::lock_guard lock(unreapedMutex_);
    unreaped_.emplace_back(pid, program);
}

bool LinuxPlatform::hasUnreaped(const std::string &program)
{
    const std::lock_guard lock(unreapedMutex_);
    std::erase_if(unreaped_, [](const std::pair<pid_t, std::string> &killed) {
        return ::waitpid(killed.first, nullptr, WNOHANG) != 0;
    });
    return std::any_of(unreaped_.begin(), unreaped_.end(),
                       [&](const auto &killed) { return killed.second == program; });
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
    return monotonicNow();
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
        const std::lock_guard lock(threadsMutex_);
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
    stopAtNs_.store(monotonicNow());
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
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    // Never blocks the watchdog's thread on a full queue.
    (void)::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                   reinterpret_cast<const sockaddr *>(&address), length);
    ::close(fd);
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
