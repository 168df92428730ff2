/* GPIO pin layer (Part 2.1). No descriptor is kept between operations. */
#include "hardware/gpio_work.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "platform/platform.h"

enum { PATH_BUFFER = 100, EDGE_BUFFER = 64 };

/* Opens path, writes len bytes of text, closes; returns the write's result. */
static int write_file(const char *path, int flags, const char *text, size_t len)
{
    int fd = plat_open(path, flags);
    if (fd < 0)
        return fd;
    int rc = (int)plat_write(fd, text, len);
    plat_close(fd);
    return rc;
}

int PinAddToWorkspace(const char *pin)
{
    /* An already exported line makes the write fail; that is ignored. */
    return write_file("/sys/class/gpio/export", O_WRONLY, pin, strlen(pin) + 1);
}

int PinSetDirectionOut(const char *pin)
{
    char path[PATH_BUFFER];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%s/direction", pin);
    return write_file(path, O_RDWR, "out", 4);
}

int PinSetDirectionIn(const char *pin)
{
    char path[PATH_BUFFER];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%s/direction", pin);
    return write_file(path, O_RDWR, "in", 3);
}

int PinSetOutput(const char *pin, int value)
{
    char path[PATH_BUFFER];
    char text[16];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%s/value", pin);
    int len = snprintf(text, sizeof text, "%d", value);
    return write_file(path, O_RDWR, text, (size_t)len);
}

int PinGetInput(const char *pin)
{
    /* The level is read into the buffer that holds the path, as the spec
     * does: a failed open or read leaves the path text there, which parses
     * as 0, so a missing line reads as 0. */
    char buf[PATH_BUFFER];
    snprintf(buf, sizeof buf, "/sys/class/gpio/gpio%s/value", pin);
    int fd = plat_open(buf, O_RDWR);
    if (fd >= 0) {
        ssize_t got = plat_read(fd, buf, 3);
        if (got > 0 && got < 3)
            buf[got] = '\0';
        else if (got == 3)
            buf[3] = '\0';
        plat_close(fd);
    }
    return (int)strtol(buf, NULL, 10);
}

int GpioSetEdge(int gpio, const char *edge)
{
    char path[EDGE_BUFFER];
    snprintf(path, sizeof path, "/sys/class/gpio/gpio%d/edge", gpio);
    int fd = plat_open(path, O_WRONLY);
    if (fd < 0) {
        perror("gpio/set-edge");
        return fd;
    }
    plat_write(fd, edge, strlen(edge) + 1);
    plat_close(fd);
    return 0;
}
