#include "ntp/ntp_queries.h"

#include "hardware/runner.h"

namespace zarvent {

NtptimeAnswer askNtptime(Runner &runner)
{
    const CommandLines out = runner.readLines("ntptime", 3);
    NtptimeAnswer answer;
    if (out.count >= 1)
        answer.code = parseNtptimeCode(out.lines[0]);
    if (out.count >= 2)
        answer.reading = parseNtptimeLine(out.lines[1]);
    if (out.count >= 3)
        answer.kernelTaiOffset = parseNtptimeTaiOffset(out.lines[2]);
    if (!answer.reading)
        runner.countFailedRead("ntptime");
    return answer;
}

std::optional<NtptimeReading> readNtptime(Runner &runner)
{
    return askNtptime(runner).reading;
}

ReceiverStatus readReceiverStatus(Runner &runner)
{
    const CommandLines out = runner.readLines("ntpq -c clockvar", 3);
    if (!out.started) {
        runner.countFailedRead("clockvar");
        return ReceiverStatus::Unknown;
    }
    // A query that started and gave fewer than three lines is no valid data,
    // whether ntpq ended or hung until its deadline: an ntpd that does not
    // answer must not keep the board steering.
    if (out.count < 3)
        runner.countFailedRead("clockvar");
    return out.count >= 3 && rmcStatusValid(out.last) ? ReceiverStatus::Valid
                                                      : ReceiverStatus::Invalid;
}

std::optional<bool> gpsIsSystemPeer(Runner &runner)
{
    return runner.hasOutput("ntpq -p | grep '*G'");
}

std::optional<bool> gpsIsPpsPeer(Runner &runner)
{
    return runner.hasOutput("ntpq -p | grep 'oG'");
}

} // namespace zarvent
