// Virtual time for the whole daemon: a baton passed between its threads so
// that exactly one runs at a time.
//
// A thread gives the baton back when it sleeps, runs a command (the command's
// cost) or waits for a lock another thread holds; when every thread waits, the
// clock jumps to the earliest wake-up and that thread takes the baton (first
// come, first served among equal wake-ups). Runs are therefore deterministic
// and free of data races by construction, and a board day takes minutes.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "daemon_process.h"

namespace zarvent::sim {

class VirtualBoard;

class Scheduler final : public ThreadScheduler {
  public:
    // Attaches itself to the board and gives the constructing thread (the
    // run's owner) the baton. pace 0 runs as fast as possible; pace p > 0
    // keeps virtual time at p times real time.
    Scheduler(VirtualBoard &board, double pace);
    // Ends the run (finish()) and detaches from the board.
    ~Scheduler() override;
    Scheduler(const Scheduler &) = delete;
    Scheduler &operator=(const Scheduler &) = delete;

    // The calling thread lets us microseconds of virtual time pass. A thread
    // the scheduler does not run moves the clock by itself.
    void wait(std::int64_t us) override;
    // Starts entry on a thread of its own that runs only with the baton.
    void startThread(std::function<void()> entry) override;
    // The daemon aborted: its threads never run again and the owner's wait
    // returns at once, without moving the clock.
    void abortRun() override;
    // Ends the run: every other thread wakes in turn, its wait throws
    // SimulationEnded, and it is joined. Called by the owner; idempotent.
    void finish() override;
    // Threads scheduled so far, the owner included.
    std::size_t threadCount() const;
    // Threads whose entry has not yet returned, the owner included.
    std::size_t liveThreads() const override;

  private:
    struct Thread;
    Thread *find() const;
    void passBaton(std::unique_lock<std::mutex> &lock, Thread *self);
    void run(Thread &thread, const std::function<void()> &entry);
    void exited(std::unique_lock<std::mutex> &lock, Thread &thread);
    void pause(std::int64_t virtualUs) const;

    VirtualBoard &board_;
    const double pace_;
    const std::chrono::steady_clock::time_point realStart_;
    const std::int64_t virtualStartUs_;
    mutable std::mutex mutex_;
    std::condition_variable threadEnded_;
    std::vector<std::unique_ptr<Thread>> threads_; // [0]: the owner
    Thread *current_ = nullptr;                    // holds the baton
    std::uint64_t sequence_ = 0;
    bool aborted_ = false;
    bool finished_ = false;
};

} // namespace zarvent::sim
