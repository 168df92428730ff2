// The FPGA's packet time-stamp tables, fetched every second cycle while the
// statistics flag is on in one full-duplex exchange of 1410 bytes over
// /dev/spidev1.0, and written as hexadecimal text to /ftpdir/stat.txt under
// the lock file /ftpdir/lock.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace zarvent {

class Platform;
class Registers;
class Runner;

// The stat file's tables from a receive frame of frameLength bytes: 64 long
// records of 13 bytes from byte 2, then 9-byte short records up to the end.
std::string statTables(const std::uint8_t *rx, std::uint32_t frameLength);

class StatCapture {
  public:
    static constexpr std::uint32_t kFrameLength = 1410;

    StatCapture(Platform &platform, Runner &runner, Registers &registers)
        : platform_(platform), runner_(runner), registers_(registers)
    {}

    // The capture control into register 1 with the start bit set on every
    // call; the exchange and the stat file on every second call.
    void capture();

  private:
    // The device failed: its message and the system's reason on standard
    // error, then the end of the daemon.
    [[noreturn]] void abortOnDevice(std::string_view message);

    Platform &platform_;
    Runner &runner_;
    Registers &registers_;
    std::uint8_t calls_ = 0; // since the last exchange: it comes at the call that finds 1
    std::uint8_t bitsPerWord_ = 8;
    std::uint8_t mode_ = 1; // SPI mode 1: clock idle low, data sampled on the trailing edge
    // The frames are part of the capture: no allocation that could fail.
    std::array<std::uint8_t, kFrameLength> tx_{};
    std::array<std::uint8_t, kFrameLength> rx_{};
};

} // namespace zarvent
