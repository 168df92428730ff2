#include "board_clock.h"

namespace zarvent::sim {

BoardClock::BoardClock(BoardMutex &mutex, std::int64_t startUs) : mutex_(mutex), nowUs_(startUs) {}

std::int64_t BoardClock::nowUs() const
{
    const BoardLocker lock(mutex_);
    return nowUs_;
}

void BoardClock::setNowUs(std::int64_t us)
{
    const BoardLocker lock(mutex_);
    nowUs_ = us;
}

void BoardClock::stepClock(std::int64_t deltaUs)
{
    const BoardLocker lock(mutex_);
    stepUs_ += deltaUs;
}

void BoardClock::setCommandCostUs(std::int64_t us)
{
    const BoardLocker lock(mutex_);
    commandCostUs_ = us;
}

std::int64_t BoardClock::commandCostUs() const
{
    const BoardLocker lock(mutex_);
    return commandCostUs_;
}

} // namespace zarvent::sim
