#include "daemon/daemon.h"

#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <optional>

#include "daemon/watchdog.h"
#include "platform/files.h"

namespace zarvent {

Daemon::Daemon(Platform &platform)
    : platform_(platform), board_(platform),
      fpga_(platform, board_.runner, board_.gpio, board_.registers, board_.shared),
      supervision_(platform, board_.runner, board_.gpio, board_.registers, board_.shared),
      cycle_(platform, board_.runner, board_.gpio, board_.registers, board_.dac, board_.shared)
{}

namespace {

// Held for the daemon's life: two daemons would drive the same DAC lines,
// register 2 and hand-overs. /run is root's alone; the link check is for
// good measure.
constexpr const char *kInstanceLock = "/run/zarvent.lock";

// How a start-up command ended, for a message.
std::string describeStatus(const std::optional<int> &status)
{
    if (!status)
        return "not started or killed at its deadline";
    if (WIFEXITED(*status))
        return "exit status " + std::to_string(WEXITSTATUS(*status));
    if (WIFSIGNALED(*status))
        return "signal " + std::to_string(WTERMSIG(*status));
    return "wait status " + std::to_string(*status);
}

} // namespace

bool Daemon::lockInstance()
{
    UniqueFd fd(platform_, platform_.open(kInstanceLock, O_RDWR | O_CREAT | O_NOFOLLOW));
    if (!fd.isValid()) {
        const int error = errno;
        platform_.writeError(std::string("zarvent: cannot open ") + kInstanceLock + ": " +
                             std::strerror(error) + "\n");
        return false;
    }
    if (platform_.tryLockFile(fd.get()) != 0) {
        std::string pid(16, '\0');
        const long got = platform_.readAt(fd.get(), pid, 0);
        pid.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        pid.erase(std::remove_if(pid.begin(), pid.end(), [](char c) { return c < '0' || c > '9'; }),
                  pid.end());
        platform_.writeError("zarvent: another instance is running (pid " +
                             (pid.empty() ? std::string("unknown") : pid) + "); lock " +
                             kInstanceLock + "\n");
        return false;
    }
    // The pid in a fixed width, so that it replaces a previous one whole
    // without truncating the file (shell `read` takes it without the spaces).
    char text[16];
    const int length = std::snprintf(text, sizeof text, "%10d\n", platform_.processId());
    (void)platform_.writeAt(fd.get(), std::span<const char>(text, static_cast<std::size_t>(length)),
                            0);
    instanceLock_ = std::move(fd);
    return true;
}

void Daemon::prepareRamDisk()
{
    // Each command is run and closed at once; its output and exit status are
    // not looked at, so a step that fails does not stop the next.
    Runner &run = board_.runner;
    const auto made = run.run("mkfs -q /dev/ram1 8192", PipeMode::Read);
    run.run("mkdir -p /ramcache", PipeMode::Read);
    const auto mounted = run.run("mount /dev/ram1 /ramcache", PipeMode::Read);
    // A restart finds the disk mounted already and mkfs and mount refusing:
    // what counts is whether /ramcache is a file system of its own now.
    const auto ramDisk = platform_.deviceOf("/ramcache");
    const auto root = platform_.deviceOf("/");
    if (!ramDisk || !root || *ramDisk == *root)
        platform_.writeError("zarvent: no RAM disk on /ramcache (mkfs: " + describeStatus(made) +
                             ", mount: " + describeStatus(mounted) +
                             "): the status page, charts and error log go to the root file "
                             "system\n");
    run.run("df -h | grep ramcache", PipeMode::Read);
    run.run("mkdir /ramcache/ntp", PipeMode::Read);
    run.run("mkdir /ramcache/zarvent", PipeMode::Read);
    touchFile(platform_, "/ramcache/zarvent/ntp.drift");
    run.run("/sbin/agetty -h 115200 ttyO1 vt100 &", PipeMode::Read);
    run.run("/usr/bin/mversion", PipeMode::Read);
    run.run("touch /ramcache/zarvent/ptp_data_0000_00_01;"
            "touch /ramcache/zarvent/ptp_data_0000_00_02;"
            "touch /ramcache/zarvent/ptp_data_0000_00_03",
            PipeMode::Write);

    // The cycle time is set before any thread starts; the start-time marker
    // is named from this local time.
    const std::int64_t started = platform_.realtimeNs() / 1'000'000'000;
    board_.shared.startTime = started;
    const auto local = platform_.localTime(started);
    if (!local)
        return;
    board_.shared.setCycleTime(*local);
    run.run(formatText("touch /ramcache/zarvent/%02d_%02d_%d-%02d-%02d.time", local->tm_hour,
                       local->tm_min, local->tm_year + 1900, local->tm_mon + 1, local->tm_mday),
            PipeMode::Write);
}

void Daemon::startThreads()
{
    platform_.startThread([this] { fpga_.run(); });
    platform_.startThread([this] { supervision_.run(); });
    platform_.startThread([this] { cycle_.run(); });
}

int Daemon::run()
{
    // Before any line, register or file is touched.
    if (!lockInstance())
        return 1;
    prepareRamDisk();
    startThreads();
    superviseUntilStop();
    return 0;
}

void Daemon::superviseUntilStop()
{
    platform_.notifyServiceManager("READY=1");
    // The main thread has no other work: it sleeps until the daemon is asked
    // to stop, waking only to feed systemd's watchdog, at half the interval
    // systemd asks for, and only while every thread progresses.
    const auto interval = platform_.watchdogInterval();
    const Deadline look =
        interval ? std::max(Deadline(1), std::chrono::duration_cast<Deadline>(*interval) / 2)
                 : Deadline(std::chrono::hours(1));
    ProgressWatch watch;
    const std::int64_t now = platform_.monotonicNs();
    watch.watch(
        "FPGA", [this] { return fpga_.progress(); }, FpgaLoader::kProgressBound, now);
    watch.watch(
        "supervision", [this] { return supervision_.progress(); }, SupervisionLoop::kProgressBound,
        now);
    watch.watch(
        "cycle", [this] { return cycle_.progress(); }, CycleLoop::kProgressBound, now);
    bool fed = true;
    while (!platform_.waitForStopRequest(look)) {
        if (!interval)
            continue;
        const bool healthy = watch.allProgressed(platform_.monotonicNs());
        if (healthy)
            platform_.notifyServiceManager("WATCHDOG=1");
        if (healthy != fed)
            platform_.writeError(healthy ? "zarvent: every thread progresses again; the "
                                           "watchdog is fed\n"
                                         : "zarvent: the " + watch.stalled() +
                                               " thread has made no progress within its "
                                               "bound; the watchdog is no longer fed\n");
        fed = healthy;
    }
    // Each thread ends its loop at the next look (a cycle or a supervision
    // pass under way is finished first, its commands cut short after the
    // stop's grace), and the parts go away with every descriptor closed.
    platform_.notifyServiceManager("STOPPING=1");
    // A last feed: the stop takes at most the commands under way and the
    // grace, well within the watchdog's interval from here.
    if (interval)
        platform_.notifyServiceManager("WATCHDOG=1");
    finishStop();
}

void Daemon::finishStop()
{
    platform_.joinThreads();
    // Nothing runs any more: the FPGA must not go on claiming steering and a
    // valid reference for clients that follow it. The supervision loop can
    // set the reference-valid bit no more, so the bits stay cleared.
    platform_.grantFinalGrace();
    cycle_.releaseClaims();
}

} // namespace zarvent
