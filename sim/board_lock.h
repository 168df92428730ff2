// The virtual board's one lock.
//
// The board is a facade over parts (clock, files, GPIO, SPI device, FPGA,
// tools, the daemon's process) that share a single mutex, the board's: the
// daemon's threads and a test's own thread call into any of them at once, and
// a call often touches several (a shell echo drives a GPIO line at the
// clock's time). Each part keeps a reference to its board's BoardMutex and
// takes it in its public methods; its methods named ...Locked expect it held.
//
// For clang's thread-safety analysis every part's state is guarded by one
// capability, kBoardLock, that stands for "this board's mutex": the analysis
// cannot see that the references the parts hold are one object, but a part
// only ever belongs to one board, so the capability is what they share.
// Never held while a register hook runs or while a thread waits for virtual
// time.
#pragma once

#include <mutex>

#include "platform/mutex.h"

namespace zarvent::sim {

class CAPABILITY("mutex") BoardLockCapability {};
inline constexpr BoardLockCapability kBoardLock{};

class BoardMutex {
  public:
    void lock() ACQUIRE(kBoardLock) NO_THREAD_SAFETY_ANALYSIS
    {
        mutex_.lock();
    }
    void unlock() RELEASE(kBoardLock) NO_THREAD_SAFETY_ANALYSIS
    {
        mutex_.unlock();
    }

  private:
    std::mutex mutex_;
};

// Holds the board's mutex for a scope.
class SCOPED_CAPABILITY BoardLocker {
  public:
    explicit BoardLocker(BoardMutex &mutex) ACQUIRE(kBoardLock) : mutex_(mutex)
    {
        mutex_.lock();
    }
    ~BoardLocker() RELEASE()
    {
        mutex_.unlock();
    }
    BoardLocker(const BoardLocker &) = delete;
    BoardLocker &operator=(const BoardLocker &) = delete;

  private:
    BoardMutex &mutex_;
};

} // namespace zarvent::sim
