#include "supervision/reference.h"

#include <optional>

#include "ntp/ntp_queries.h"
#include "platform/platform.h"

namespace zarvent {

Reference ReferenceWatch::ask()
{
    std::optional<Reference> answer;
    const std::optional<bool> system = gpsIsSystemPeer(runner_);
    if (system == true) {
        answer = Reference::SystemPeer;
    } else {
        const std::optional<bool> pps = gpsIsPpsPeer(runner_);
        // Anything short of the system peer needs both answers: with the
        // first one missing, the GPS may be the system peer as well.
        if (pps == true && system == false)
            answer = Reference::PpsPeer;
        else if (pps == false && system == false)
            answer = Reference::None;
    }
    const std::int64_t now = platform_.monotonicNs();
    if (answer) {
        lastKnown_ = *answer;
        knownAtNs_ = now;
        return *answer;
    }
    if (knownAtNs_ != 0 && now - knownAtNs_ <= kHoldNs)
        return lastKnown_;
    return Reference::None;
}

} // namespace zarvent
