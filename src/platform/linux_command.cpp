// Commands of the Linux seam: a command line run by /bin/sh in a process
// group of its own, with a deadline, as popen would run it.
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

// posix_spawn's attributes and file actions, destroyed with their scope.
struct SpawnAttributes {
    SpawnAttributes()
    {
        posix_spawnattr_init(&value);
    }
    ~SpawnAttributes()
    {
        posix_spawnattr_destroy(&value);
    }
    SpawnAttributes(const SpawnAttributes &) = delete;
    SpawnAttributes &operator=(const SpawnAttributes &) = delete;
    posix_spawnattr_t value;
};

struct SpawnFileActions {
    SpawnFileActions()
    {
        posix_spawn_file_actions_init(&value);
    }
    ~SpawnFileActions()
    {
        posix_spawn_file_actions_destroy(&value);
    }
    SpawnFileActions(const SpawnFileActions &) = delete;
    SpawnFileActions &operator=(const SpawnFileActions &) = delete;
    posix_spawn_file_actions_t value;
};

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
    ShellCommand(LinuxPlatform &platform, std::string program, pid_t pid, SystemFd fd, bool reading,
                 std::int64_t deadlineNs)
        : platform_(platform), program_(std::move(program)), pid_(pid), fd_(std::move(fd)),
          reading_(reading), deadlineNs_(deadlineNs)
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
        if (!fd_.isValid() || timedOut_)
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
            pollfd ready{fd_.get(), POLLIN, 0};
            const int count = ::poll(&ready, 1, waitMs);
            if (count < 0 && errno != EINTR)
                return -1;
            if (count > 0) {
                const ssize_t got = ::read(fd_.get(), into.data(), into.size());
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
        fd_.reset();
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
        return end - monotonicClockNs();
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
        fd_.reset();
        if (pid_ <= 0 || ended_) {
            if (pid_ > 0)
                ::kill(-pid_, SIGKILL); // the command ended, its children did not
            pid_ = -1;
            status_ = -1;
            return;
        }
        ::kill(-pid_, SIGKILL);
        const std::int64_t giveUp = monotonicClockNs() + kReapGraceNs;
        std::int64_t nap = 50'000;
        while (!reapNoHang() && monotonicClockNs() < giveUp) {
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
    SystemFd fd_;
    bool reading_;
    std::int64_t deadlineNs_; // on the monotonic clock
    bool ended_ = false;
    bool timedOut_ = false;
    int status_ = -1;
};

} // namespace

std::unique_ptr<Command> LinuxPlatform::startCommand(const std::string &line, PipeMode mode,
                                                     Deadline deadline)
{
    // A program whose killed command is still not gone (stuck in its
    // driver) gets no new one until it is: otherwise each cycle would add
    // another unkillable process. And after a stop's grace nothing starts.
    const std::string program = programOf(line);
    if (hasUnreaped(program) ||
        (stopAtNs() != 0 &&
         monotonicClockNs() > stopAtNs() + std::chrono::nanoseconds(kStopGrace).count())) {
        errno = EAGAIN;
        return nullptr;
    }
    const std::int64_t deadlineNs =
        monotonicClockNs() + std::chrono::duration_cast<std::chrono::nanoseconds>(deadline).count();
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return nullptr;
    const bool reading = mode == PipeMode::Read;
    SystemFd childEnd(reading ? ends[1] : ends[0]);
    SystemFd ourEnd(reading ? ends[0] : ends[1]);

    SpawnFileActions actions;
    posix_spawn_file_actions_adddup2(&actions.value, childEnd.get(),
                                     reading ? STDOUT_FILENO : STDIN_FILENO);
    // The daemon's threads keep SIGTERM and SIGINT blocked for
    // waitForStopRequest() and ignore SIGPIPE; a tool starts with no signal
    // blocked and SIGPIPE as usual, as from a shell. It leads a process group
    // of its own, so that at its deadline everything it started goes with it.
    SpawnAttributes attributes;
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_setsigmask(&attributes.value, &none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes.value, &defaults);
    posix_spawnattr_setpgroup(&attributes.value, 0);
    posix_spawnattr_setflags(&attributes.value, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                    POSIX_SPAWN_SETPGROUP);
    const char *argv[] = {"sh", "-c", line.c_str(), nullptr};
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, "/bin/sh", &actions.value, &attributes.value,
                                 const_cast<char **>(argv), environ);
    childEnd.reset();
    if (rc != 0) {
        errno = rc;
        return nullptr;
    }
    return std::make_unique<ShellCommand>(*this, program, pid, std::move(ourEnd), reading,
                                          deadlineNs);
}

void LinuxPlatform::adoptUnreaped(pid_t pid, const std::string &program)
{
    const MutexLocker lock(unreapedMutex_);
    unreaped_.emplace_back(pid, program);
}

bool LinuxPlatform::hasUnreaped(const std::string &program)
{
    const MutexLocker lock(unreapedMutex_);
    std::erase_if(unreaped_, [](const std::pair<pid_t, std::string> &killed) {
        return ::waitpid(killed.first, nullptr, WNOHANG) != 0;
    });
    return std::any_of(unreaped_.begin(), unreaped_.end(),
                       [&](const auto &killed) { return killed.second == program; });
}

} // namespace zarvent
