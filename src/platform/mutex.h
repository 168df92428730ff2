// Mutexes the threads share, annotated for clang's thread-safety analysis
// (-Wthread-safety): every member a lock protects says so with GUARDED_BY,
// and clang checks each access. gcc ignores the annotations.
#pragma once

#include <mutex>

#if defined(__clang__)
#define ZARVENT_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZARVENT_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) ZARVENT_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY ZARVENT_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) ZARVENT_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) ZARVENT_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ZARVENT_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ZARVENT_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZARVENT_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ZARVENT_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS ZARVENT_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zarvent {

class CAPABILITY("mutex") Mutex {
  public:
    void lock() ACQUIRE()
    {
        mutex_.lock();
    }
    bool tryLock() TRY_ACQUIRE(true)
    {
        return mutex_.try_lock();
    }
    void unlock() RELEASE()
    {
        mutex_.unlock();
    }

  private:
    std::mutex mutex_;
};

// Holds a mutex for one short copy in or out; never held across a call
// into the OS seam.
class SCOPED_CAPABILITY MutexLocker {
  public:
    explicit MutexLocker(Mutex &mutex) ACQUIRE(mutex) : mutex_(mutex)
    {
        mutex_.lock();
    }
    ~MutexLocker() RELEASE()
    {
        mutex_.unlock();
    }
    MutexLocker(const MutexLocker &) = delete;
    MutexLocker &operator=(const MutexLocker &) = delete;

  private:
    Mutex &mutex_;
};

} // namespace zarvent
