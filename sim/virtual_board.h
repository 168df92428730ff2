// The virtual board: the second implementation of the OS seam.
//
// It answers the daemon's calls from a model of the board instead of the OS,
// in parts that share the board's one lock (board_lock.h):
// - clock(): one virtual clock for the realtime clock, local time (UTC),
//   sleeps;
// - files(): the per-run directory tree every path maps into;
// - gpio(): sysfs GPIO with the kernel's semantics and the DAC's words;
// - descriptors(): the descriptors of the virtual files (sysfs, SPI device);
// - spi(): the SPI capture device /dev/spidev1.0 and its ioctls;
// - fpga(): the register file behind spiWrite, and the loader wrFPGA;
// - ntp(): ntpd and the kernel clock as ntpq and ntptime show them;
// - tools(): the command lines the daemon runs, answered by the programs'
//   models after per-test rules, and recorded;
// - process(): the daemon's threads, stop request, notifications, standard
//   error and abort, and the scheduler that runs it in virtual time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "board_clock.h"
#include "board_files.h"
#include "board_lock.h"
#include "daemon_process.h"
#include "fpga_model.h"
#include "ntp_tools.h"
#include "platform/platform.h"
#include "shell_tools.h"
#include "spi_device.h"
#include "sysfs_gpio.h"
#include "virtual_descriptors.h"

namespace zarvent::sim {

class VirtualBoard final : public Platform {
  public:
    // A fresh board in a new temporary directory, removed by the destructor;
    // the clock at startUnix seconds.
    explicit VirtualBoard(std::int64_t startUnix);
    // A board whose tree is the directory root (created when missing and
    // kept: the simulator's outputs).
    VirtualBoard(const std::string &root, std::int64_t startUnix);
    // Ends the run (process().stop()), then removes a temporary tree.
    ~VirtualBoard() override;
    VirtualBoard(const VirtualBoard &) = delete;
    VirtualBoard &operator=(const VirtualBoard &) = delete;

    // ---- the seam
    std::unique_ptr<Command> startCommand(const std::string &line, PipeMode mode,
                                          Deadline deadline) override;
    int open(const std::string &path, int flags) override;
    long read(int fd, std::span<char> into) override;
    long readAt(int fd, std::span<char> into, std::int64_t offset) override;
    long write(int fd, std::span<const char> from) override;
    long writeAt(int fd, std::span<const char> from, std::int64_t offset) override;
    int close(int fd) override;
    int ioctl(int fd, unsigned long request, void *argument) override;
    std::vector<std::string> listDirectory(const std::string &path) override;
    bool removeFile(const std::string &path) override;
    bool makeDirectory(const std::string &path) override;
    bool renameFile(const std::string &from, const std::string &to) override;
    std::optional<std::int64_t> fileSize(const std::string &path) override;
    std::optional<FileSystemUsage> fileSystemUsage(const std::string &path) override;
    std::optional<std::uint64_t> deviceOf(const std::string &path) override;
    int tryLockFile(int fd) override;
    std::int64_t realtimeNs() override;
    // Virtual time, never stepped.
    std::int64_t monotonicNs() override;
    std::optional<std::tm> localTime(std::int64_t unixSeconds) override;
    void sleepSeconds(unsigned seconds) override;
    void sleepMicroseconds(unsigned microseconds) override;
    void startThread(std::function<void()> entry) override;
    bool stopRequested() override;
    // Without a scheduler the caller's wait ends the run (SimulationEnded);
    // with one, virtual time passes until a stop is requested or the
    // timeout has passed, and until every daemon thread has ended.
    bool waitForStopRequest(Deadline timeout) override;
    void joinThreads() override;
    void grantFinalGrace() override;
    void lock(Mutex &mutex) override ACQUIRE(mutex);
    void writeError(std::string_view text) override;
    // Recorded with their time: process().notifications().
    void notifyServiceManager(std::string_view state) override;
    std::optional<std::chrono::microseconds> watchdogInterval() override;
    int processId() override;
    [[noreturn]] void abortProcess() override;

    // ---- the board
    // The board's usual tree: /usr/bin/Zarvent with its tools and bitstream,
    // /ramcache/zarvent, /ftpdir, /etc/network, /dev, and the lines the system
    // provides: 85 (output, level 1) and 176 (input, level 1).
    void boardTree();
    // Forgets the commands, levels and DAC words recorded so far.
    void dropHistory();

    BoardClock &clock()
    {
        return clock_;
    }
    const BoardClock &clock() const
    {
        return clock_;
    }
    BoardFiles &files()
    {
        return files_;
    }
    const BoardFiles &files() const
    {
        return files_;
    }
    SysfsGpio &gpio()
    {
        return gpio_;
    }
    const SysfsGpio &gpio() const
    {
        return gpio_;
    }
    const VirtualDescriptors &descriptors() const
    {
        return descriptors_;
    }
    SpiDevice &spi()
    {
        return spi_;
    }
    const SpiDevice &spi() const
    {
        return spi_;
    }
    FpgaModel &fpga()
    {
        return fpga_;
    }
    const FpgaModel &fpga() const
    {
        return fpga_;
    }
    NtpTools &ntp()
    {
        return ntp_;
    }
    const NtpTools &ntp() const
    {
        return ntp_;
    }
    ShellTools &tools()
    {
        return tools_;
    }
    const ShellTools &tools() const
    {
        return tools_;
    }
    DaemonProcess &process()
    {
        return process_;
    }
    const DaemonProcess &process() const
    {
        return process_;
    }

  private:
    BoardMutex mutex_;
    BoardClock clock_;
    DaemonProcess process_;
    BoardFiles files_;
    VirtualDescriptors descriptors_;
    SysfsGpio gpio_;
    SpiDevice spi_;
    FpgaModel fpga_;
    NtpTools ntp_;
    ShellTools tools_;
};

} // namespace zarvent::sim
