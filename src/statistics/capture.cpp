#include "statistics/capture.h"

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/spi/spidev.h>

#include "hardware/board_map.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/files.h"
#include "platform/platform.h"

namespace zarvent {

namespace {

constexpr const char *kLockFile = "/ftpdir/lock";
constexpr const char *kStatFile = "/ftpdir/stat.txt";
constexpr const char *kDevice = "/dev/spidev1.0";
// The FPGA's command for the time-stamp tables, the frame's second byte.
constexpr std::uint8_t kCaptureCommand = 0x31;
constexpr std::uint32_t kRecordsStart = 2;
constexpr int kLongRecords = 64;
constexpr std::uint32_t kLongRecord = 13;
constexpr std::uint32_t kShortRecord = 9;
constexpr int kTableLines = 32;

void bytesDown(std::string &out, const std::uint8_t *bytes, int from, int to)
{
    char hex[3];
    for (int i = from; i >= to; --i) {
        (void)std::snprintf(hex, sizeof hex, "%.2x", bytes[i]);
        out += hex;
    }
}

} // namespace

std::string statTables(const std::uint8_t *rx, std::uint32_t frameLength)
{
    std::string out;
    std::uint32_t offset = kRecordsStart;
    for (int k = 0; k < kLongRecords && offset + kLongRecord <= frameLength;
         ++k, offset += kLongRecord) {
        if (k == 0)
            out += " time2*\t     t1\n";
        else if (k == kTableLines)
            out += " time3*\t     t1\n";
        bytesDown(out, rx + offset, 11, 8); // byte 12 is not printed
        out += '\t';
        bytesDown(out, rx + offset, 7, 0);
        out += '\n';
    }
    for (int k = 0; offset + kShortRecord <= frameLength; ++k, offset += kShortRecord) {
        if (k == 0)
            out += "time2\n";
        else if (k == kTableLines)
            out += "time3\n";
        bytesDown(out, rx + offset, 7, 0); // byte 8 is not printed
        out += '\n';
    }
    return out;
}

void StatCapture::abortOnDevice(std::string_view message)
{
    const int error = errno;
    platform_.writeError(std::string(message) + ": " + std::strerror(error) + "\n");
    platform_.abortProcess();
    std::abort(); // not reached: abortProcess does not return
}

namespace {

// One number from column 6: the counter's low byte. A read that failed is
// written as 0.
std::string lowByteLine(const std::optional<std::uint64_t> &value)
{
    return std::to_string(value ? (*value & 0xFF) : 0) + "\n";
}

} // namespace

void StatCapture::capture()
{
    // On every call; a read of register 48 that failed is not written back.
    if (const auto control = registers_.readCaptureControl())
        registers_.write(fpga::kSyncRegister, *control | fpga::kCaptureStartBit, PipeMode::Read);

    const std::uint8_t old = calls_;
    calls_ = static_cast<std::uint8_t>(old + 1);
    if (old != 1)
        return;

    touchFile(platform_, kLockFile);
    bitsPerWord_ = 8; // the read-back below may have changed it

    UniqueFd device(platform_, platform_.open(kDevice, O_RDWR));
    if (!device.isValid())
        abortOnDevice("can't open device");
    if (platform_.ioctl(device.get(), SPI_IOC_WR_MODE, &mode_) == -1)
        abortOnDevice("can't set spi mode");
    if (platform_.ioctl(device.get(), SPI_IOC_RD_MODE, &mode_) == -1)
        abortOnDevice("can't get spi mode");
    if (platform_.ioctl(device.get(), SPI_IOC_WR_BITS_PER_WORD, &bitsPerWord_) == -1)
        abortOnDevice("can't set bits per word");
    if (platform_.ioctl(device.get(), SPI_IOC_RD_BITS_PER_WORD, &bitsPerWord_) == -1)
        abortOnDevice("can't get bits per word");

    tx_.fill(0);
    tx_[0] = 0x00;
    tx_[1] = kCaptureCommand;
    rx_.fill(0);
    spi_ioc_transfer transfer{};
    transfer.tx_buf = reinterpret_cast<std::uintptr_t>(tx_.data());
    transfer.rx_buf = reinterpret_cast<std::uintptr_t>(rx_.data());
    transfer.len = kFrameLength;
    transfer.bits_per_word = bitsPerWord_;
    if (platform_.ioctl(device.get(), SPI_IOC_MESSAGE(1), &transfer) < 1)
        abortOnDevice("can't send spi message");

    // The stat file is opened only now, after a good exchange: a device that
    // fails ends the daemon with the previous file whole. One that cannot be
    // opened loses this exchange, and the lock goes as after any other.
    OutputFile stat(platform_, kStatFile, OutputFile::Mode::Replace);
    if (stat.isOpen())
        stat.write(statTables(rx_.data(), kFrameLength));
    device.reset();
    calls_ = 0;
    if (stat.isOpen()) {
        stat.write(lowByteLine(registers_.readResponses()));
        stat.write(lowByteLine(registers_.readRequests()));
        (void)stat.close(); // the previous tables stay when the new ones do not fit
    }
    runner_.run("rm /ftpdir/lock", PipeMode::Read);
}

} // namespace zarvent
