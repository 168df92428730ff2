/* Linux backend of the OS seam: one-line wrappers over libc. */
#include "platform/platform.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

FILE *plat_popen(const char *cmd, const char *mode)
{
    return popen(cmd, mode);
}

int plat_pclose(FILE *f)
{
    return pclose(f);
}

FILE *plat_fopen(const char *path, const char *mode)
{
    return fopen(path, mode);
}

int plat_open(const char *path, int flags)
{
    return open(path, flags, 0666);
}

ssize_t plat_read(int fd, void *buf, size_t n)
{
    return read(fd, buf, n);
}

ssize_t plat_write(int fd, const void *buf, size_t n)
{
    return write(fd, buf, n);
}

int plat_close(int fd)
{
    return close(fd);
}

int plat_ioctl(int fd, unsigned long request, void *arg)
{
    return ioctl(fd, request, arg);
}

time_t plat_time(void)
{
    return time(NULL);
}

struct tm *plat_localtime(time_t t, struct tm *out)
{
    return localtime_r(&t, out);
}

void plat_sleep(unsigned seconds)
{
    sleep(seconds);
}

void plat_usleep(unsigned microseconds)
{
    usleep(microseconds);
}

void *plat_malloc(size_t n)
{
    return malloc(n);
}

void plat_free(void *p)
{
    free(p);
}

int plat_thread_start(pthread_t *handle, void *(*entry)(void *))
{
    int rc = pthread_create(handle, NULL, entry, NULL);
    if (rc == 0)
        pthread_detach(*handle);
    return rc;
}

void plat_block_forever(void)
{
    for (;;)
        pause();
}

void plat_mutex_lock(pthread_mutex_t *m)
{
    pthread_mutex_lock(m);
}

void plat_mutex_unlock(pthread_mutex_t *m)
{
    pthread_mutex_unlock(m);
}
