#include "daemon/daemon.h"

#include "cycle/ThreadINT.h"
#include "daemon/files.h"
#include "fpga/ThreadFPGA.h"
#include "hardware/dac.h"
#include "hardware/gpio_work.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "supervision/ThreadLED.h"

namespace zarvent {

Daemon::Daemon(Platform &platform)
    : platform_(platform), runner_(std::make_unique<Runner>(platform)),
      gpio_(std::make_unique<Gpio>(platform, *runner_)),
      registers_(std::make_unique<Registers>(platform, *runner_, shared_)),
      dac_(std::make_unique<Dac>(platform, *gpio_)),
      fpga_(std::make_unique<FpgaThread>(platform, *runner_, *gpio_, *registers_)),
      supervision_(
          std::make_unique<SupervisionThread>(platform, *runner_, *gpio_, *registers_, shared_)),
      cycle_(std::make_unique<CycleThread>(platform, *runner_, *gpio_, *registers_, *dac_, shared_))
{}

Daemon::~Daemon() = default;

void Daemon::CreateRAMDisk()
{
    // Each command is run and closed at once; its output and exit status are
    // not looked at, so a step that fails does not stop the next.
    Runner &run = *runner_;
    run.run("mkfs -q /dev/ram1 8192", PipeMode::Read);
    run.run("mkdir -p /ramcache", PipeMode::Read);
    run.run("mount /dev/ram1 /ramcache", PipeMode::Read);
    run.run("df -h | grep ramcache", PipeMode::Read);
    run.run("mkdir /ramcache/ntp", PipeMode::Read);
    run.run("mkdir /ramcache/zarvent", PipeMode::Read);
    touchFile(platform_, "/ramcache/zarvent/ntp.drift");
    run.run("/sbin/agetty -h 115200 ttyO1 vt100 &", PipeMode::Read);
    shared_.Stat_Out = StatOut{};
    run.run("/usr/bin/mversion", PipeMode::Read);
    run.run("touch /ramcache/zarvent/ptp_data_0000_00_01;"
            "touch /ramcache/zarvent/ptp_data_0000_00_02;"
            "touch /ramcache/zarvent/ptp_data_0000_00_03",
            PipeMode::Write);

    // `timeinfo` is set before any thread starts; the start-time marker is
    // named from this local time.
    const auto local = platform_.localTime(platform_.realtimeNs() / 1'000'000'000);
    if (!local)
        return;
    shared_.setTimeinfo(*local);
    run.run(formatText("touch /ramcache/zarvent/%02d_%02d_%d-%02d-%02d.time", local->tm_hour,
                       local->tm_min, local->tm_year + 1900, local->tm_mon + 1, local->tm_mday),
            PipeMode::Write);
}

void Daemon::CreateThreads()
{
    platform_.startThread([this] { fpga_->ThreadSrvFPGA(); });
    platform_.startThread([this] { supervision_->ThreadSrvLED(); });
    platform_.startThread([this] { cycle_->ThreadSrvINT(); });
}

void Daemon::run()
{
    CreateRAMDisk();
    CreateThreads();
    // The main thread has no further work: it waits without using the
    // processor until the daemon is asked to stop. Each thread then ends its
    // loop at the next look (a cycle or a supervision pass under way is
    // finished first, so no file is left half-written), and the parts go
    // away with every descriptor closed.
    platform_.waitForStop();
}

} // namespace zarvent
