#include "scheduler.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "virtual_board.h"

namespace zarvent::sim {

struct Scheduler::Thread {
    std::thread::id id;
    std::condition_variable wakeUp;
    std::int64_t wake = 0;      // virtual time at which it wants the baton
    std::uint64_t sequence = 0; // first come, first served among equal wake-ups
    bool alive = true;
    bool ending = false; // finish() woke it to end
    std::thread handle;
};

Scheduler::Scheduler(VirtualBoard &board, double pace)
    : board_(board), pace_(pace), realStart_(std::chrono::steady_clock::now()),
      virtualStartUs_(board.clock().nowUs())
{
    {
        const std::lock_guard lock(mutex_);
        auto owner = std::make_unique<Thread>();
        owner->id = std::this_thread::get_id();
        owner->sequence = ++sequence_;
        current_ = owner.get();
        threads_.push_back(std::move(owner));
    }
    board_.process().attachScheduler(this);
}

Scheduler::~Scheduler()
{
    finish();
    board_.process().attachScheduler(nullptr);
}

Scheduler::Thread *Scheduler::find() const
{
    const auto self = std::this_thread::get_id();
    for (const auto &thread : threads_)
        if (thread->id == self && thread->alive)
            return thread.get();
    return nullptr;
}

// Waits in real time until the clock may show virtualUs. The deadline is
// counted from the start of the run, not from the last jump, so that the
// overhead of many short sleeps does not add up and the pace holds.
void Scheduler::pause(std::int64_t virtualUs) const
{
    if (pace_ <= 0)
        return;
    const std::chrono::duration<double, std::micro> real(
        static_cast<double>(virtualUs - virtualStartUs_) / pace_);
    std::this_thread::sleep_until(
        realStart_ + std::chrono::duration_cast<std::chrono::steady_clock::duration>(real));
}

// Hands the baton to the thread with the earliest wake-up, moving the clock
// there, and waits until self holds it again (self null: a thread that has
// ended hands on).
void Scheduler::passBaton(std::unique_lock<std::mutex> &lock, Thread *self)
{
    Thread *next = nullptr;
    for (const auto &t : threads_) {
        if (!t->alive || t->ending)
            continue;
        if (next == nullptr || t->wake < next->wake ||
            (t->wake == next->wake && t->sequence < next->sequence))
            next = t.get();
    }
    if (next == nullptr)
        return;
    const std::int64_t now = board_.clock().nowUs();
    if (next->wake > now) {
        lock.unlock();
        pause(next->wake);
        lock.lock();
        board_.clock().setNowUs(next->wake);
    }
    current_ = next;
    if (next == self)
        return;
    // Wake the next thread without the lock held, so that it does not wake
    // only to block on it; it may even hand the baton back before this thread
    // waits, which the wait's predicate sees.
    lock.unlock();
    next->wakeUp.notify_one();
    lock.lock();
    if (self != nullptr)
        self->wakeUp.wait(lock, [&] { return current_ == self; });
}

void Scheduler::wait(std::int64_t us)
{
    std::unique_lock lock(mutex_);
    Thread *self = find();
    if (self == nullptr) {
        lock.unlock();
        board_.clock().setNowUs(board_.clock().nowUs() + us);
        return;
    }
    const bool owner = self == threads_.front().get();
    if (self->ending || (aborted_ && !owner))
        throw SimulationEnded{};
    if (aborted_)
        return;
    self->wake = board_.clock().nowUs() + std::max<std::int64_t>(us, 0);
    self->sequence = ++sequence_;
    passBaton(lock, self);
    if (self->ending)
        throw SimulationEnded{};
}

void Scheduler::startThread(std::function<void()> entry)
{
    const std::lock_guard lock(mutex_);
    auto thread = std::make_unique<Thread>();
    Thread &t = *thread;
    t.wake = board_.clock().nowUs();
    t.sequence = ++sequence_;
    threads_.push_back(std::move(thread));
    // The new thread looks itself up only under mutex_, after its id is set.
    t.handle = std::thread([this, &t, entry = std::move(entry)] { run(t, entry); });
    t.id = t.handle.get_id();
}

void Scheduler::run(Thread &thread, const std::function<void()> &entry)
{
    {
        std::unique_lock lock(mutex_);
        thread.wakeUp.wait(lock, [&] { return current_ == &thread; });
        if (thread.ending) {
            exited(lock, thread);
            return;
        }
    }
    try {
        entry();
    } catch (const SimulationEnded &) {
    }
    std::unique_lock lock(mutex_);
    exited(lock, thread);
}

// A thread's entry has returned or unwound; it holds the baton.
void Scheduler::exited(std::unique_lock<std::mutex> &lock, Thread &thread)
{
    thread.alive = false;
    if (thread.ending) {
        threadEnded_.notify_all();
    } else if (aborted_) {
        // Nothing of the daemon runs after an abort: straight back to the
        // owner, at the time of the abort.
        current_ = threads_.front().get();
        current_->wakeUp.notify_one();
    } else {
        passBaton(lock, nullptr);
    }
}

void Scheduler::abortRun()
{
    const std::lock_guard lock(mutex_);
    aborted_ = true;
}

void Scheduler::finish()
{
    {
        std::unique_lock lock(mutex_);
        if (finished_)
            return;
        finished_ = true;
        // One thread at a time, as the baton would have it: each unwinds
        // alone, then the next is woken.
        for (const auto &t : threads_) {
            if (t == threads_.front() || !t->alive)
                continue;
            t->ending = true;
            current_ = t.get();
            t->wakeUp.notify_one();
            threadEnded_.wait(lock, [&] { return !t->alive; });
        }
        current_ = threads_.front().get();
        current_->wakeUp.notify_one();
    }
    for (const auto &t : threads_)
        if (t->handle.joinable())
            t->handle.join();
}

std::size_t Scheduler::liveThreads() const
{
    const std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(threads_.begin(), threads_.end(), [](const auto &t) { return t->alive; }));
}

std::size_t Scheduler::threadCount() const
{
    const std::lock_guard lock(mutex_);
    return threads_.size();
}

} // namespace zarvent::sim
