// The daemon: its parts wired at start, the RAM disk and the three threads.
#pragma once

#include <memory>

#include "daemon/shared.h"
#include "platform/platform.h"

namespace zarvent {

class Runner;
class Gpio;
class Registers;
class Dac;
class FpgaThread;
class SupervisionThread;
class CycleThread;

class Daemon {
  public:
    explicit Daemon(Platform &platform);
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // The RAM disk, the output directory, the serial console, cleared
    // statistics, the marker files and `timeinfo`, before any thread starts.
    void CreateRAMDisk();
    // Starts the FPGA, supervision and cycle threads, in this order.
    void CreateThreads();
    // main(): the instance lock, both of the above, then the main thread
    // feeds systemd's watchdog while the threads progress, until the daemon
    // is asked to stop and its threads have ended. The process's exit
    // status: 1 when another instance runs.
    int run();
    // Takes the instance lock: false, with a message, when another instance
    // holds it or it cannot be had.
    bool lockInstance();

    SharedState &shared()
    {
        return shared_;
    }

  private:
    void superviseUntilStop();

    Platform &platform_;
    UniqueFd instanceLock_;
    SharedState shared_;
    std::unique_ptr<Runner> runner_;
    std::unique_ptr<Gpio> gpio_;
    std::unique_ptr<Registers> registers_;
    std::unique_ptr<Dac> dac_;
    std::unique_ptr<FpgaThread> fpga_;
    std::unique_ptr<SupervisionThread> supervision_;
    std::unique_ptr<CycleThread> cycle_;
};

} // namespace zarvent
