// The board's one virtual clock: the realtime clock, local time (UTC), the
// monotonic clock and every sleep read it.
#pragma once

#include <cstdint>

#include "board_lock.h"

namespace zarvent::sim {

class BoardClock {
  public:
    BoardClock(BoardMutex &mutex, std::int64_t startUs);

    // True time since the epoch: the monotonic clock, the pulse, the model.
    std::int64_t nowUs() const;
    void setNowUs(std::int64_t us);
    // The system clock stepped by deltaUs (ntpd stepping it): the realtime
    // clock, local time and the tools' time move, the pulse does not.
    void stepClock(std::int64_t deltaUs);
    // Virtual time a command costs before it runs (0 unless set).
    void setCommandCostUs(std::int64_t us);
    std::int64_t commandCostUs() const;

    std::int64_t nowUsLocked() const REQUIRES(kBoardLock)
    {
        return nowUs_;
    }
    // The system clock: true time and the steps ntpd made.
    std::int64_t realtimeUsLocked() const REQUIRES(kBoardLock)
    {
        return nowUs_ + stepUs_;
    }
    void advanceLocked(std::int64_t us) REQUIRES(kBoardLock)
    {
        nowUs_ += us;
    }

  private:
    BoardMutex &mutex_;
    std::int64_t nowUs_ GUARDED_BY(kBoardLock);
    std::int64_t stepUs_ GUARDED_BY(kBoardLock) = 0; // the system clock against true time
    std::int64_t commandCostUs_ GUARDED_BY(kBoardLock) = 0;
};

} // namespace zarvent::sim
