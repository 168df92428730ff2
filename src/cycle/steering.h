// Steering of the board's reference oscillator: once per steered second the
// offset the FPGA measured becomes a new DAC code through a filtered-
// proportional, integral and difference law around a centre code, and one
// point goes to the chart file of the current minute.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace zarvent {

class Platform;
class Registers;
class Dac;
struct CycleTime;

// Chart files on the RAM disk. Start-up makes it with "mkfs -q /dev/ram1
// 8192": 8192 blocks of 1 KiB and, at one inode per 4 KiB for so small a file
// system, 2048 inodes. The file system's own structures take about 600 blocks
// and 11 inodes, and 5 % of the blocks are reserved for root. A chart file of
// a whole minute holds 60 lines of about 40 bytes: 3 blocks and 1 inode. The
// RAM disk is to stay at most half full for good, with room for the status
// page, the error log, the stat file, the markers, the lock files and ntpd's
// files (48 inodes kept for them). The inodes are the tighter limit; the bound
// is 960 files, the newest 16 hours of chart. Every chart file on the RAM disk
// counts, also those an earlier run of the daemon left (the RAM disk outlives
// a restart of the daemon, not a reboot).
namespace chart {
inline constexpr int kRamDiskBlocks = 8192;
inline constexpr int kRamDiskInodes = 2048;
inline constexpr int kFileSystemBlocks = 600;
inline constexpr int kFileSystemInodes = 11;
inline constexpr int kRootBlocks = kRamDiskBlocks / 20;
inline constexpr int kFileBlocks = 3;
inline constexpr int kOtherFiles = 48;
inline constexpr int kFilesKept = 960;
static_assert(kFileSystemInodes + kOtherFiles + kFilesKept <= kRamDiskInodes / 2);
static_assert(kFileSystemBlocks + kFilesKept * kFileBlocks <= kRamDiskBlocks / 2);
// Whatever else fills the RAM disk, the oldest chart files give way while
// less than a quarter of its blocks or inodes is free.
inline constexpr int kFreeQuarter = 4;
inline constexpr const char *kDirectory = "/ramcache/zarvent";
} // namespace chart

// One second of the control law, from the centre code, the offset read, the
// previous filtered offset and the integral.
struct SteeringStep {
    std::int32_t error = 0;      // the offset clamped to -10000..10000 ns
    std::int32_t filtered = 0;   // the filtered offset, the next second's previous
    std::int64_t integral = 0;   // the integral after this second
    std::int64_t difference = 0; // filtered - error
    std::int32_t control = 0;    // the control value before the DAC clamp
};
SteeringStep steeringLaw(std::int32_t centre, long offset, std::int32_t previousFiltered,
                         std::int64_t integral);
// The code clamped to the DAC's range 0..65535.
std::uint32_t dacCode(std::int32_t control);
// The chart file of the minute of local time t.
std::string chartFileName(const std::tm &t);
// True for the name of a chart file of a minute ("ptp_data_2026~11~16_14-05"),
// false for the placeholders and everything else.
bool isChartFileName(const std::string &name);

class Steering {
  public:
    Steering(Platform &platform, Registers &registers, Dac &dac);

    // Loads the centre code, then sends the DAC's reference set-up and the
    // centre as the oscillator's code.
    void sendDefaults();
    // One steered second from this cycle's offset (as the page shows it):
    // the DAC's reference set-up, the new code, the FPGA's sync bit, the
    // code to the DAC and a chart point in the minute of the cycle's time.
    void steer(std::int32_t offsetNs, const CycleTime &time);

    // The code the DAC holds: the centre from start-up, then each steered
    // second's code (it keeps the last one when steering stops).
    unsigned codeSent() const
    {
        return codeSent_;
    }
    // Chart files on the RAM disk at the last new minute, its own included.
    std::size_t chartFiles() const
    {
        return chartFiles_;
    }

  private:
    void loadCentre();
    void chartPoint(std::int32_t offset, const std::tm &t);
    void trimCharts(const std::string &current);

    Platform &platform_;
    Registers &registers_;
    Dac &dac_;
    std::int32_t centre_;
    std::int32_t filtered_ = 0;
    // 64 bits: at full-scale offset a 32-bit integral would overflow after
    // about 30 hours of steering; 20000 a second cannot fill 64 bits, and
    // every value it reaches is exact in a double.
    std::int64_t integral_ = 0;
    std::string lastChart_;
    std::size_t chartFiles_ = 0;
    unsigned codeSent_;
};

} // namespace zarvent
