// The daemon's process on the virtual board: its threads, its stop request,
// what it tells the service manager and writes to standard error, its abort,
// and the scheduler that runs it in virtual time.
//
// Without a scheduler (unit tests) the calling thread lets virtual time pass
// by itself, and threads the daemon starts are only recorded until
// runRecordedThreads() starts them as real, concurrent threads. With a
// Scheduler attached (the simulator) every daemon thread runs in virtual time,
// one at a time. stop() ends the run: from then on every call of the seam made
// by a daemon thread throws SimulationEnded, which unwinds that thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "board_clock.h"
#include "board_lock.h"
#include "platform/platform.h"

namespace zarvent::sim {

// What runs the daemon's threads in virtual time (the simulator's Scheduler,
// scheduler.h): the process hands its waits and threads to it once attached.
class ThreadScheduler {
  public:
    virtual ~ThreadScheduler() = default;
    // The calling thread lets us microseconds of virtual time pass.
    virtual void wait(std::int64_t us) = 0;
    virtual void startThread(std::function<void()> entry) = 0;
    virtual void abortRun() = 0;
    virtual void finish() = 0;
    // Threads whose entry has not yet returned, the owner included.
    virtual std::size_t liveThreads() const = 0;
};

// Thrown by the seam's calls in a daemon thread once the run has ended.
struct SimulationEnded {};

class DaemonProcess {
  public:
    DaemonProcess(BoardMutex &mutex, BoardClock &clock);

    std::string errorOutput() const; // all the daemon wrote to standard error
    bool aborted() const;
    // SIGTERM to the daemon: stopRequested() is true from now on (false again
    // with requestStop(false), for a daemon started after it).
    void requestStop(bool stop = true);
    // systemd's watchdog as the daemon will find it (nothing: none).
    void setWatchdogInterval(std::optional<std::chrono::microseconds> interval);
    // What the daemon sent to the service manager, with the time.
    std::vector<std::pair<std::int64_t, std::string>> notifications() const;
    std::size_t threadCount() const;
    // Unit tests: starts the recorded threads as real, concurrent threads.
    void runRecordedThreads();
    // Ends the run: later seam calls of daemon threads throw SimulationEnded;
    // waits for the threads to end.
    void stop();
    void attachScheduler(ThreadScheduler *scheduler);

    // ---- for the seam
    // After stop() every call of the seam by a daemon thread ends it.
    void checkRunning() const;
    // The calling thread lets us of virtual time pass: in the scheduler when
    // one is attached, else by moving the clock.
    void passTime(std::int64_t us);
    void startThread(std::function<void()> entry);
    bool stopRequested() const;
    bool waitForStopRequest(Deadline timeout);
    void joinThreads();
    // The stop's grace starts again from now (the daemon's last commands).
    void grantFinalGrace();
    void lock(Mutex &mutex) ACQUIRE(mutex);
    void writeError(std::string_view text);
    void notifyServiceManager(std::string_view state);
    std::optional<std::chrono::microseconds> watchdogInterval() const;
    [[noreturn]] void abortProcess();
    // A command's deadline in us from now, cut short after a stop request.
    std::int64_t commandDeadlineLocked(std::int64_t deadlineUs) const REQUIRES(kBoardLock);

  private:
    ThreadScheduler &mainWaitScheduler();

    BoardMutex &mutex_;
    BoardClock &clock_;
    ThreadScheduler *scheduler_ GUARDED_BY(kBoardLock) = nullptr;
    std::vector<std::function<void()>> threadEntries_ GUARDED_BY(kBoardLock);
    std::size_t threadsStarted_ GUARDED_BY(kBoardLock) = 0;
    std::vector<std::thread> threads_ GUARDED_BY(kBoardLock);
    std::multiset<std::thread::id> daemonThreads_ GUARDED_BY(kBoardLock);
    bool stopped_ GUARDED_BY(kBoardLock) = false;
    bool stopRequested_ GUARDED_BY(kBoardLock) = false;
    std::int64_t stopRequestedAtUs_ GUARDED_BY(kBoardLock) = 0;
    std::optional<std::chrono::microseconds> watchdog_ GUARDED_BY(kBoardLock);
    std::vector<std::pair<std::int64_t, std::string>> notifications_ GUARDED_BY(kBoardLock);
    std::string errorOutput_ GUARDED_BY(kBoardLock);
    bool aborted_ GUARDED_BY(kBoardLock) = false;
};

} // namespace zarvent::sim
