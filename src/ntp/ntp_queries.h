// ntpd asked through its tools: the system time with ntptime, the receiver's
// status and the peers with ntpq. The cycle and the supervision loop both ask.
#pragma once

#include <optional>

#include "ntp/ntp_parsers.h"

namespace zarvent {

class Runner;

// Runs "ntptime": its second line when that has the classic form, nothing
// when the tool cannot be run or prints anything else.
[[nodiscard]] std::optional<NtptimeReading> readNtptime(Runner &runner);

enum class ReceiverStatus {
    Unknown, // ntpq could not be started: nothing is known
    Invalid, // fewer than three lines, or no valid RMC sentence
    Valid,
};
// Runs "ntpq -c clockvar" and reads the receiver's RMC status from its third
// line.
ReceiverStatus readReceiverStatus(Runner &runner);

// "ntpq -p | grep '*G'": present when the system peer is the GPS reference.
bool gpsIsSystemPeer(Runner &runner);
// "ntpq -p | grep 'oG'": present when the PPS peer is the GPS reference.
bool gpsIsPpsPeer(Runner &runner);

} // namespace zarvent
