// The SPI capture device /dev/spidev1.0: its mode and word size, and the
// full-duplex exchange of one frame, whose reply the board model sets. Each
// operation can be made to fail as a broken driver would.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "board_lock.h"
#include "virtual_descriptors.h"

namespace zarvent::sim {

enum class SpiOp { Open, WriteMode, ReadMode, WriteBits, ReadBits, Message };

// The fields of the last SPI transfer descriptor the daemon handed over.
struct SpiRecord {
    std::uint32_t len = 0;
    std::uint32_t speedHz = 0;
    std::uint16_t delayUsecs = 0;
    std::uint8_t bitsPerWord = 0;
    std::uint8_t csChange = 0;
    std::uint8_t txNbits = 0;
    std::uint8_t rxNbits = 0;
    std::uint8_t wordDelayUsecs = 0;
    std::uint8_t pad = 0;
    std::uint8_t txHead[2] = {0, 0};
    bool txRestZero = true;
    std::uint8_t modeWritten = 0;
    std::uint8_t bitsWritten = 0;
};

class SpiDevice {
  public:
    static constexpr const char *kPath = "/dev/spidev1.0";

    SpiDevice(BoardMutex &mutex, VirtualDescriptors &descriptors);

    void setPresent(bool present);
    // The operation fails from now on.
    void fail(SpiOp op);
    // What the FPGA clocks back in every exchange (zeros after it).
    void setReply(std::span<const std::uint8_t> reply);
    int exchanges() const;
    SpiRecord last() const;

    // ---- for the seam
    // A descriptor, or -1 with errno.
    int openLocked() REQUIRES(kBoardLock);
    int ioctlLocked(unsigned long request, void *argument) REQUIRES(kBoardLock);

  private:
    static constexpr std::size_t kFrame = 1410;

    bool failingLocked(SpiOp op) const REQUIRES(kBoardLock);

    BoardMutex &mutex_;
    VirtualDescriptors &descriptors_;
    bool present_ GUARDED_BY(kBoardLock) = true;
    std::array<bool, 6> failing_ GUARDED_BY(kBoardLock){};
    std::array<std::uint8_t, kFrame> reply_ GUARDED_BY(kBoardLock){};
    int exchanges_ GUARDED_BY(kBoardLock) = 0;
    SpiRecord last_ GUARDED_BY(kBoardLock);
    std::uint8_t mode_ GUARDED_BY(kBoardLock) = 0;
    std::uint8_t bits_ GUARDED_BY(kBoardLock) = 8;
};

} // namespace zarvent::sim
