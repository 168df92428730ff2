// The watchdog's view of the daemon at work: each thread's loop counts its
// iterations, and the daemon is healthy while every thread's count moved
// within that thread's bound (the longest one iteration may legitimately
// take, every command in it at its deadline). Only then is systemd's watchdog
// fed: a thread stuck where nothing bounds it (a sysfs read the driver never
// answers, a lock never released) stops the feeding, and systemd restarts
// the daemon instead of leaving it to claim sync on a frozen cycle.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zarvent {

class ProgressWatch {
  public:
    using Progress = std::function<std::uint64_t()>;

    // Watches a thread, from nowNs on.
    void watch(std::string name, Progress progress, std::chrono::nanoseconds bound,
               std::int64_t nowNs);
    // Looks at every thread at nowNs (a clock that never steps): true when
    // each one's count moved within its bound.
    bool allProgressed(std::int64_t nowNs);
    // The first thread that did not, at the last look ("" when none).
    const std::string &stalled() const
    {
        return stalled_;
    }

  private:
    struct Watched {
        std::string name;
        Progress progress;
        std::int64_t boundNs = 0;
        std::uint64_t last = 0;
        std::int64_t movedAtNs = 0;
    };
    std::vector<Watched> watched_;
    std::string stalled_;
};

} // namespace zarvent
