#include "spi_device.h"

#include <linux/spi/spidev.h>

#include <algorithm>
#include <cerrno>

namespace zarvent::sim {

SpiDevice::SpiDevice(BoardMutex &mutex, VirtualDescriptors &descriptors)
    : mutex_(mutex), descriptors_(descriptors)
{}

bool SpiDevice::failingLocked(SpiOp op) const
{
    return failing_[static_cast<std::size_t>(op)];
}

int SpiDevice::openLocked()
{
    if (!present_ || failingLocked(SpiOp::Open)) {
        errno = ENOENT;
        return -1;
    }
    return descriptors_.openLocked(FdKind::Spi, 0);
}

int SpiDevice::ioctlLocked(unsigned long request, void *argument)
{
    auto *byte = static_cast<std::uint8_t *>(argument);
    int rc = -1;
    errno = EIO;
    if (request == SPI_IOC_WR_MODE) {
        if (!failingLocked(SpiOp::WriteMode)) {
            mode_ = *byte;
            last_.modeWritten = mode_;
            rc = 0;
        }
    } else if (request == SPI_IOC_RD_MODE) {
        if (!failingLocked(SpiOp::ReadMode)) {
            *byte = mode_;
            rc = 0;
        }
    } else if (request == SPI_IOC_WR_BITS_PER_WORD) {
        if (!failingLocked(SpiOp::WriteBits)) {
            bits_ = *byte;
            last_.bitsWritten = bits_;
            rc = 0;
        }
    } else if (request == SPI_IOC_RD_BITS_PER_WORD) {
        if (!failingLocked(SpiOp::ReadBits)) {
            *byte = bits_;
            rc = 0;
        }
    } else if (request == SPI_IOC_MESSAGE(1)) {
        // A failing exchange transfers nothing and reports 0 bytes.
        rc = 0;
        if (!failingLocked(SpiOp::Message)) {
            const auto *tr = static_cast<const spi_ioc_transfer *>(argument);
            SpiRecord &r = last_;
            r.len = tr->len;
            r.speedHz = tr->speed_hz;
            r.delayUsecs = tr->delay_usecs;
            r.bitsPerWord = tr->bits_per_word;
            r.csChange = tr->cs_change;
            r.txNbits = tr->tx_nbits;
            r.rxNbits = tr->rx_nbits;
            r.wordDelayUsecs = tr->word_delay_usecs;
            r.pad = tr->pad;
            // The transfer descriptor carries the daemon's buffers as integers,
            // as the kernel's spidev interface defines them.
            const auto *tx =
                reinterpret_cast<const std::uint8_t *>( // NOLINT(performance-no-int-to-ptr)
                    static_cast<std::uintptr_t>(tr->tx_buf));
            auto *rx = reinterpret_cast<std::uint8_t *>( // NOLINT(performance-no-int-to-ptr)
                static_cast<std::uintptr_t>(tr->rx_buf));
            r.txHead[0] = tx != nullptr && tr->len > 0 ? tx[0] : 0;
            r.txHead[1] = tx != nullptr && tr->len > 1 ? tx[1] : 0;
            r.txRestZero =
                tx == nullptr || std::all_of(tx + std::min<std::uint32_t>(tr->len, 2), tx + tr->len,
                                             [](std::uint8_t b) { return b == 0; });
            if (rx != nullptr)
                std::copy_n(reply_.begin(), std::min<std::size_t>(tr->len, kFrame), rx);
            exchanges_++;
            rc = static_cast<int>(tr->len);
        }
    } else {
        errno = ENOTTY;
    }
    return rc;
}

void SpiDevice::setPresent(bool present)
{
    const BoardLocker lock(mutex_);
    present_ = present;
}

void SpiDevice::fail(SpiOp op)
{
    const BoardLocker lock(mutex_);
    failing_[static_cast<std::size_t>(op)] = true;
}

void SpiDevice::setReply(std::span<const std::uint8_t> reply)
{
    const BoardLocker lock(mutex_);
    reply_.fill(0);
    std::copy_n(reply.begin(), std::min(reply.size(), kFrame), reply_.begin());
}

int SpiDevice::exchanges() const
{
    const BoardLocker lock(mutex_);
    return exchanges_;
}

SpiRecord SpiDevice::last() const
{
    const BoardLocker lock(mutex_);
    return last_;
}

} // namespace zarvent::sim
