// The daemon: its parts wired at start, the RAM disk and the three threads.
#pragma once

#include "cycle/cycle_loop.h"
#include "daemon/board.h"
#include "fpga/fpga_loader.h"
#include "platform/platform.h"
#include "supervision/supervision_loop.h"

namespace zarvent {

class Daemon {
  public:
    explicit Daemon(Platform &platform);
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // The RAM disk, the output directory, the serial console, the marker
    // files and the start time, before any thread starts.
    void prepareRamDisk();
    // Starts the FPGA, supervision and cycle threads, in this order.
    void startThreads();
    // main(): the instance lock, both of the above, then the main thread
    // feeds systemd's watchdog while the threads progress, until the daemon
    // is asked to stop and its threads have ended. The process's exit
    // status: 1 when another instance runs.
    int run();
    // Takes the instance lock: false, with a message, when another instance
    // holds it or it cannot be had.
    bool lockInstance();
    // After a stop request: waits for the threads to end, then withdraws
    // what the daemon told the FPGA (its sync and reference-valid bits, relay
    // pulses cut short) and removes its metrics.
    void finishStop();

    // What the threads share and whether the cycle steers: the simulator's
    // view of the daemon.
    const SharedState &shared() const
    {
        return board_.shared;
    }
    bool steeringEnabled() const
    {
        return cycle_.steeringEnabled();
    }

  private:
    void superviseUntilStop();

    Platform &platform_;
    UniqueFd instanceLock_;
    Board board_;
    FpgaLoader fpga_;
    SupervisionLoop supervision_;
    CycleLoop cycle_;
};

} // namespace zarvent
