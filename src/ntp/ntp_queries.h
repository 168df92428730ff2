// ntpd asked through its tools: the system time with ntptime, the receiver's
// status and the peers with ntpq. The cycle and the supervision loop both ask.
#pragma once

#include <cstdint>
#include <optional>

#include "ntp/ntp_parsers.h"

namespace zarvent {

class Runner;

// What one run of ntptime said.
struct NtptimeAnswer {
    // The second line, when it has the classic form.
    std::optional<NtptimeReading> reading;
    // The first line's return code and the third line's TAI offset, each
    // when the line has its documented form.
    std::optional<int> code;
    std::optional<std::int32_t> kernelTaiOffset;
};
// Runs "ntptime" and reads its first three lines.
NtptimeAnswer askNtptime(Runner &runner);
// Its second line alone: nothing when the tool cannot be run or prints
// anything else.
[[nodiscard]] std::optional<NtptimeReading> readNtptime(Runner &runner);

enum class ReceiverStatus {
    Unknown, // ntpq could not be started: nothing is known
    Invalid, // fewer than three lines (killed or not), or no valid RMC sentence
    Valid,
};
// Runs "ntpq -c clockvar" and reads the receiver's RMC status from its third
// line.
ReceiverStatus readReceiverStatus(Runner &runner);

// "ntpq -p | grep '*G'": whether the system peer is the GPS reference.
// "ntpq -p | grep 'oG'": whether the PPS peer is. Nothing when the query could
// not be started or was killed at its deadline: no answer either way.
std::optional<bool> gpsIsSystemPeer(Runner &runner);
std::optional<bool> gpsIsPpsPeer(Runner &runner);

} // namespace zarvent
