// ntpd and the kernel clock as their tools show them: ntpq's peer list and
// the NMEA driver's clock variables (the receiver's last RMC sentence),
// and ntptime's view of the kernel's time, TAI offset and PLL.
#pragma once

#include <cstdint>
#include <string>

#include "board_clock.h"
#include "board_lock.h"
#include "program_run.h"

namespace zarvent::sim {

// ntpd's system peer: the NMEA driver alone, its PPS peer, both, or none.
enum class Peer { None, System, Pps, Both };

class NtpTools {
  public:
    NtpTools(BoardMutex &mutex, BoardClock &clock);

    void setPeer(Peer peer);
    // The RMC sentence's status: 'A' valid, 'V' void.
    void setRmcStatus(char status);
    char rmcStatus() const;

    // ntptime's output at a Unix time (in microseconds) with a TAI offset.
    static std::string formatNtptime(std::int64_t unixUs, int tai);

    // ---- the tools, at the system clock's time
    void runNtptimeLocked(const ProgramRun &run) const REQUIRES(kBoardLock);
    // ntpq -c clockvar, or ntpq -p (through grep for the selected peer).
    void runNtpqLocked(const ProgramRun &run) const REQUIRES(kBoardLock);

  private:
    // TAI - UTC since 2017.
    static constexpr int kTaiOffset = 37;

    void peersLocked(const std::string &commandLine, std::string &out) const REQUIRES(kBoardLock);

    BoardMutex &mutex_;
    BoardClock &clock_;
    Peer peer_ GUARDED_BY(kBoardLock) = Peer::System;
    char rmc_ GUARDED_BY(kBoardLock) = 'A';
};

} // namespace zarvent::sim
