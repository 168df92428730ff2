#include "daemon_process.h"

#include <algorithm>

#include <thread>

namespace zarvent::sim {

namespace {

constexpr std::int64_t kLockRetryUs = 50;

} // namespace

DaemonProcess::DaemonProcess(BoardMutex &mutex, BoardClock &clock) : mutex_(mutex), clock_(clock) {}

void DaemonProcess::checkRunning() const
{
    const BoardLocker lock(mutex_);
    if (stopped_ && daemonThreads_.contains(std::this_thread::get_id()))
        throw SimulationEnded{};
}

void DaemonProcess::passTime(std::int64_t us)
{
    ThreadScheduler *scheduler = nullptr;
    {
        const BoardLocker lock(mutex_);
        scheduler = scheduler_;
        if (scheduler == nullptr) {
            clock_.advanceLocked(us);
            return;
        }
    }
    scheduler->wait(us);
}

std::int64_t DaemonProcess::commandDeadlineLocked(std::int64_t deadlineUs) const
{
    // As on the board: after a stop request no command outlasts it by more
    // than the grace.
    if (!stopRequested_)
        return deadlineUs;
    const std::int64_t graceUs =
        std::chrono::duration_cast<std::chrono::microseconds>(kStopGrace).count();
    return std::min(deadlineUs,
                    std::max<std::int64_t>(0, stopRequestedAtUs_ + graceUs - clock_.nowUsLocked()));
}

void DaemonProcess::startThread(std::function<void()> entry)
{
    checkRunning();
    ThreadScheduler *scheduler = nullptr;
    {
        const BoardLocker lock(mutex_);
        threadEntries_.push_back(entry);
        scheduler = scheduler_;
        if (scheduler != nullptr)
            threadsStarted_ = threadEntries_.size();
    }
    if (scheduler != nullptr)
        scheduler->startThread(std::move(entry));
}

bool DaemonProcess::stopRequested() const
{
    const BoardLocker lock(mutex_);
    return stopRequested_;
}

void DaemonProcess::requestStop(bool stop)
{
    const BoardLocker lock(mutex_);
    stopRequested_ = stop;
    stopRequestedAtUs_ = clock_.nowUsLocked();
}

void DaemonProcess::grantFinalGrace()
{
    const BoardLocker lock(mutex_);
    if (stopRequested_)
        stopRequestedAtUs_ = clock_.nowUsLocked();
}

void DaemonProcess::setWatchdogInterval(std::optional<std::chrono::microseconds> interval)
{
    const BoardLocker lock(mutex_);
    watchdog_ = interval;
}

std::optional<std::chrono::microseconds> DaemonProcess::watchdogInterval() const
{
    const BoardLocker lock(mutex_);
    return watchdog_;
}

void DaemonProcess::notifyServiceManager(std::string_view state)
{
    const BoardLocker lock(mutex_);
    notifications_.emplace_back(clock_.nowUsLocked(), std::string(state));
}

std::vector<std::pair<std::int64_t, std::string>> DaemonProcess::notifications() const
{
    const BoardLocker lock(mutex_);
    return notifications_;
}

// The scheduler the main thread waits in; without one (unit tests) the
// caller's wait ends the run.
ThreadScheduler &DaemonProcess::mainWaitScheduler()
{
    checkRunning();
    ThreadScheduler *scheduler = nullptr;
    {
        const BoardLocker lock(mutex_);
        scheduler = scheduler_;
    }
    if (scheduler == nullptr)
        throw SimulationEnded{};
    return *scheduler;
}

bool DaemonProcess::waitForStopRequest(Deadline timeout)
{
    ThreadScheduler &scheduler = mainWaitScheduler();
    // One poll interval of virtual time at a time: the request comes from
    // the scenario, between two of the daemon's steps.
    const std::int64_t until =
        clock_.nowUs() + std::chrono::duration_cast<std::chrono::microseconds>(timeout).count();
    while (!stopRequested() && clock_.nowUs() < until)
        scheduler.wait(500);
    return stopRequested();
}

void DaemonProcess::joinThreads()
{
    ThreadScheduler &scheduler = mainWaitScheduler();
    while (scheduler.liveThreads() > 1)
        scheduler.wait(500);
}

void DaemonProcess::lock(Mutex &mutex) NO_THREAD_SAFETY_ANALYSIS
{
    checkRunning();
    bool scheduled = false;
    {
        const BoardLocker lock(mutex_);
        scheduled = scheduler_ != nullptr;
    }
    if (!scheduled) {
        mutex.lock();
        return;
    }
    // The holder may be waiting for the baton: retry after a little virtual
    // time instead of blocking the whole board.
    while (!mutex.tryLock())
        passTime(kLockRetryUs);
}

void DaemonProcess::writeError(std::string_view text)
{
    const BoardLocker lock(mutex_);
    errorOutput_ += text;
}

void DaemonProcess::abortProcess()
{
    ThreadScheduler *scheduler = nullptr;
    {
        const BoardLocker lock(mutex_);
        aborted_ = true;
        scheduler = scheduler_;
    }
    if (scheduler != nullptr)
        scheduler->abortRun();
    throw SimulationEnded{};
}

std::string DaemonProcess::errorOutput() const
{
    const BoardLocker lock(mutex_);
    return errorOutput_;
}

bool DaemonProcess::aborted() const
{
    const BoardLocker lock(mutex_);
    return aborted_;
}

std::size_t DaemonProcess::threadCount() const
{
    const BoardLocker lock(mutex_);
    return threadEntries_.size();
}

void DaemonProcess::runRecordedThreads()
{
    const BoardLocker lock(mutex_);
    for (; threadsStarted_ < threadEntries_.size(); threadsStarted_++) {
        threads_.emplace_back([this, entry = threadEntries_[threadsStarted_]] {
            const auto self = std::this_thread::get_id();
            {
                const BoardLocker registered(mutex_);
                daemonThreads_.insert(self);
            }
            try {
                entry();
            } catch (const SimulationEnded &) {
            }
            const BoardLocker registered(mutex_);
            daemonThreads_.erase(daemonThreads_.find(self));
        });
    }
}

void DaemonProcess::stop()
{
    ThreadScheduler *scheduler = nullptr;
    std::vector<std::thread> threads;
    {
        const BoardLocker lock(mutex_);
        stopped_ = true;
        scheduler = scheduler_;
        threads.swap(threads_);
    }
    if (scheduler != nullptr)
        scheduler->finish();
    for (std::thread &thread : threads)
        thread.join();
}

void DaemonProcess::attachScheduler(ThreadScheduler *scheduler)
{
    const BoardLocker lock(mutex_);
    scheduler_ = scheduler;
}

} // namespace zarvent::sim
