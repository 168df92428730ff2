#include "daemon/watchdog.h"

namespace zarvent {

void ProgressWatch::watch(std::string name, Progress progress, std::chrono::nanoseconds bound,
                          std::int64_t nowNs)
{
    const std::uint64_t now = progress();
    watched_.push_back({std::move(name), std::move(progress), bound.count(), now, nowNs});
}

bool ProgressWatch::allProgressed(std::int64_t nowNs)
{
    stalled_.clear();
    for (Watched &w : watched_) {
        const std::uint64_t count = w.progress();
        if (count != w.last) {
            w.last = count;
            w.movedAtNs = nowNs;
        } else if (nowNs - w.movedAtNs > w.boundNs && stalled_.empty()) {
            stalled_ = w.name;
        }
    }
    return stalled_.empty();
}

} // namespace zarvent
