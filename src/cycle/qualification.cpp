#include "cycle/qualification.h"

#include "hardware/registers.h"
#include "ntp/ntp_queries.h"

namespace zarvent {

namespace {
constexpr std::uint32_t kValidCycles = 60;
} // namespace

void ReceiverQualification::qualify()
{
    switch (readReceiverStatus(runner_)) {
    case ReceiverStatus::Unknown:
        return; // ntpq cannot be started: nothing changes
    case ReceiverStatus::Invalid:
        steering_ = false;
        validCycles_ = 0;
        registers_.copyControlToSync(false, PipeMode::Read);
        return;
    case ReceiverStatus::Valid:
        if (++validCycles_ >= kValidCycles) {
            steering_ = true;
            validCycles_ = 0;
            registers_.copyControlToSync(true, PipeMode::Read);
        }
        return;
    }
}

void ReceiverQualification::withdraw()
{
    steering_ = false;
    validCycles_ = 0;
    registers_.copyControlToSync(false, PipeMode::Read);
}

} // namespace zarvent
