#include "virtual_board.h"

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <system_error>

namespace zarvent::sim {

VirtualBoard::VirtualBoard(std::int64_t startUnix) : VirtualBoard(std::string(), startUnix) {}

VirtualBoard::VirtualBoard(const std::string &root, std::int64_t startUnix)
    : clock_(mutex_, startUnix * 1000000), process_(mutex_, clock_), files_(mutex_, clock_, root),
      descriptors_(mutex_), gpio_(mutex_, clock_, descriptors_), spi_(mutex_, descriptors_),
      fpga_(mutex_, files_), ntp_(mutex_, clock_),
      tools_(mutex_, clock_, process_, files_, gpio_, fpga_)
{
    const ProgramHandler registerTool = [this](const ProgramRun &run) REQUIRES(kBoardLock) {
        fpga_.runRegisterToolLocked(run);
    };
    tools_.addProgram("./spiWrite", registerTool);
    tools_.addProgram(std::string(kWorkDir) + "/spiWrite", registerTool);
    tools_.addProgram("./wrFPGA", [this](const ProgramRun &run)
                                      REQUIRES(kBoardLock) { fpga_.runLoaderLocked(run); });
    tools_.addProgram("ntptime", [this](const ProgramRun &run)
                                     REQUIRES(kBoardLock) { ntp_.runNtptimeLocked(run); });
    tools_.addProgram("ntpq", [this](const ProgramRun &run)
                                  REQUIRES(kBoardLock) { ntp_.runNtpqLocked(run); });
}

VirtualBoard::~VirtualBoard()
{
    process_.stop();
}

void VirtualBoard::boardTree()
{
    files_.writeFile(std::string(kWorkDir) + "/spiWrite",
                     "#!/bin/sh\n# register tool (modelled)\n");
    files_.writeFile(std::string(kWorkDir) + "/wrFPGA", "#!/bin/sh\n# FPGA loader (modelled)\n");
    files_.writeFile(std::string(kWorkDir) + "/Version_1.rbf", "bitstream\n");
    std::error_code error;
    for (const char *dir : {"/ramcache/zarvent", "/ftpdir", "/etc/network", "/dev", "/run"})
        std::filesystem::create_directories(files_.hostPath(dir), error);
    gpio_.provideLine(85, true, 1);
    gpio_.provideLine(176, false, 1);
}

void VirtualBoard::dropHistory()
{
    const BoardLocker lock(mutex_);
    tools_.dropHistoryLocked();
    gpio_.dropHistoryLocked();
}

// ---------------------------------------------------------------- commands and time

std::unique_ptr<Command> VirtualBoard::startCommand(const std::string &line, PipeMode mode,
                                                    Deadline deadline)
{
    return tools_.startCommand(line, mode, deadline);
}

std::int64_t VirtualBoard::monotonicNs()
{
    const BoardLocker lock(mutex_);
    return clock_.nowUsLocked() * 1000;
}

std::int64_t VirtualBoard::realtimeNs()
{
    const BoardLocker lock(mutex_);
    return clock_.realtimeUsLocked() * 1000;
}

std::optional<std::tm> VirtualBoard::localTime(std::int64_t unixSeconds)
{
    // The board keeps its local time in UTC.
    const auto t = static_cast<std::time_t>(unixSeconds);
    std::tm out{};
    if (::gmtime_r(&t, &out) == nullptr)
        return std::nullopt;
    return out;
}

void VirtualBoard::sleepSeconds(unsigned seconds)
{
    process_.checkRunning();
    process_.passTime(static_cast<std::int64_t>(seconds) * 1000000);
}

void VirtualBoard::sleepMicroseconds(unsigned microseconds)
{
    process_.checkRunning();
    process_.passTime(static_cast<std::int64_t>(microseconds));
}

// ---------------------------------------------------------------- descriptors

int VirtualBoard::open(const std::string &path, int flags)
{
    process_.checkRunning();
    const BoardLocker lock(mutex_);
    if (const int error = files_.openErrorLocked(path); error != 0) {
        errno = error;
        return -1;
    }
    if (const auto fd = gpio_.openLocked(path))
        return *fd;
    if (path == SpiDevice::kPath)
        return spi_.openLocked();
    return files_.openLocked(path, flags);
}

long VirtualBoard::read(int fd, std::span<char> into)
{
    // A read of a line's value that was asked to block does so, outside the
    // lock, before it is answered.
    if (const std::int64_t hold = gpio_.takeHeldReadUs(fd); hold > 0)
        process_.passTime(hold);
    {
        const BoardLocker lock(mutex_);
        if (const VirtualFd *v = descriptors_.findLocked(fd))
            return gpio_.readLocked(*v, into);
    }
    return ::read(fd, into.data(), into.size());
}

long VirtualBoard::readAt(int fd, std::span<char> into, std::int64_t offset)
{
    if (const std::int64_t hold = gpio_.takeHeldReadUs(fd); hold > 0)
        process_.passTime(hold);
    {
        const BoardLocker lock(mutex_);
        if (const VirtualFd *v = descriptors_.findLocked(fd))
            return gpio_.readLocked(*v, into);
    }
    return ::pread(fd, into.data(), into.size(), static_cast<off_t>(offset));
}

long VirtualBoard::write(int fd, std::span<const char> from)
{
    {
        const BoardLocker lock(mutex_);
        if (const VirtualFd *v = descriptors_.findLocked(fd))
            return gpio_.writeLocked(*v, from);
        if (files_.noSpaceLocked(fd)) {
            errno = ENOSPC;
            return -1;
        }
    }
    return ::write(fd, from.data(), from.size());
}

long VirtualBoard::writeAt(int fd, std::span<const char> from, std::int64_t offset)
{
    {
        const BoardLocker lock(mutex_);
        if (const VirtualFd *v = descriptors_.findLocked(fd))
            return gpio_.writeLocked(*v, from);
        if (files_.noSpaceLocked(fd)) {
            errno = ENOSPC;
            return -1;
        }
    }
    return ::pwrite(fd, from.data(), from.size(), static_cast<off_t>(offset));
}

int VirtualBoard::close(int fd)
{
    // No end-of-run check: descriptors are closed by destructors while a
    // daemon thread unwinds.
    {
        const BoardLocker lock(mutex_);
        if (descriptors_.closeLocked(fd))
            return 0;
        files_.closedLocked(fd);
    }
    return ::close(fd);
}

int VirtualBoard::ioctl(int fd, unsigned long request, void *argument)
{
    process_.checkRunning();
    const BoardLocker lock(mutex_);
    const VirtualFd *v = descriptors_.findLocked(fd);
    if (v == nullptr || v->kind != FdKind::Spi) {
        errno = ENOTTY;
        return -1;
    }
    return spi_.ioctlLocked(request, argument);
}

// ---------------------------------------------------------------- the file system

std::vector<std::string> VirtualBoard::listDirectory(const std::string &path)
{
    return files_.listDirectory(path);
}

bool VirtualBoard::removeFile(const std::string &path)
{
    return files_.removeFile(path);
}

bool VirtualBoard::makeDirectory(const std::string &path)
{
    return files_.makeDirectory(path);
}

bool VirtualBoard::renameFile(const std::string &from, const std::string &to)
{
    return files_.renameFile(from, to);
}

std::optional<std::uint64_t> VirtualBoard::deviceOf(const std::string &path)
{
    return files_.deviceOf(path);
}

int VirtualBoard::tryLockFile(int fd)
{
    return ::flock(fd, LOCK_EX | LOCK_NB);
}

std::optional<std::int64_t> VirtualBoard::fileSize(const std::string &path)
{
    return files_.fileSize(path);
}

std::optional<FileSystemUsage> VirtualBoard::fileSystemUsage(const std::string &path)
{
    return files_.fileSystemUsage(path);
}

// ---------------------------------------------------------------- the process

void VirtualBoard::startThread(std::function<void()> entry)
{
    process_.startThread(std::move(entry));
}

bool VirtualBoard::stopRequested()
{
    return process_.stopRequested();
}

void VirtualBoard::grantFinalGrace()
{
    process_.grantFinalGrace();
}

bool VirtualBoard::waitForStopRequest(Deadline timeout)
{
    return process_.waitForStopRequest(timeout);
}

void VirtualBoard::joinThreads()
{
    process_.joinThreads();
}

void VirtualBoard::lock(Mutex &mutex) NO_THREAD_SAFETY_ANALYSIS
{
    process_.lock(mutex);
}

void VirtualBoard::writeError(std::string_view text)
{
    process_.writeError(text);
}

void VirtualBoard::notifyServiceManager(std::string_view state)
{
    process_.notifyServiceManager(state);
}

std::optional<std::chrono::microseconds> VirtualBoard::watchdogInterval()
{
    return process_.watchdogInterval();
}

int VirtualBoard::processId()
{
    return 4242;
}

void VirtualBoard::abortProcess()
{
    process_.abortProcess();
}

} // namespace zarvent::sim
