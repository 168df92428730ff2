// The board's SPI capture device for the sandboxed board image, preloaded into
// the daemon: the image's /dev/spidev1.0 is a plain file, opened and closed for
// real, and the spidev requests on it succeed here as the driver answers them.
// The mode and word size read back as set; a transfer fills the receive buffer
// with counting bytes and returns its length. Every other request reaches the
// kernel unchanged.
#include <cstdarg>
#include <cstdint>
#include <linux/spi/spidev.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool isCaptureDevice(int fd)
{
    struct stat device {};
    struct stat file {};
    return ::stat("/dev/spidev1.0", &device) == 0 && ::fstat(fd, &file) == 0 &&
           device.st_dev == file.st_dev && device.st_ino == file.st_ino;
}

} // namespace

extern "C" int ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    if (_IOC_TYPE(request) != SPI_IOC_MAGIC || !isCaptureDevice(fd))
        return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
    if (request != SPI_IOC_MESSAGE(1))
        return 0;
    const auto *transfer = static_cast<const spi_ioc_transfer *>(argument);
    auto *rx = reinterpret_cast<std::uint8_t *>(static_cast<std::uintptr_t>(transfer->rx_buf));
    for (std::uint32_t i = 0; i < transfer->len; ++i)
        rx[i] = static_cast<std::uint8_t>(i);
    return static_cast<int>(transfer->len);
}
