#include "ntp/ntp_queries.h"

#include "hardware/runner.h"

namespace zarvent {

std::optional<NtptimeReading> readNtptime(Runner &runner)
{
    const CommandLines out = runner.readLines("ntptime", 2);
    if (out.count < 2)
        return std::nullopt;
    return parseNtptimeLine(out.last);
}

ReceiverStatus readReceiverStatus(Runner &runner)
{
    const CommandLines out = runner.readLines("ntpq -c clockvar", 3);
    if (!out.started)
        return ReceiverStatus::Unknown;
    return out.count >= 3 && rmcStatusValid(out.last) ? ReceiverStatus::Valid
                                                      : ReceiverStatus::Invalid;
}

bool gpsIsSystemPeer(Runner &runner)
{
    return runner.hasOutput("ntpq -p | grep '*G'");
}

bool gpsIsPpsPeer(Runner &runner)
{
    return runner.hasOutput("ntpq -p | grep 'oG'");
}

} // namespace zarvent
