/* The daemon's only door to the operating system (GUIDE section 1).
 *
 * Every contact of the daemon logic with the OS goes through these functions.
 * Two backends supply them at link time: platform_linux.c, a page of thin
 * wrappers over libc for the board, and the board simulator (sim/vplat.c),
 * which answers the same calls from a model of the board in virtual time.
 * Stdio on a stream that plat_popen or plat_fopen returned (fgets, fread,
 * fprintf, fputs, fclose of an fopen stream) is plain C. */
#ifndef ZARVENT_PLATFORM_H
#define ZARVENT_PLATFORM_H

#include <pthread.h>
#include <stdio.h>
#include <sys/types.h>
#include <time.h>

/* Runs a shell command line; mode "r" reads its output, "w" discards nothing. NULL when it cannot
 * start. */
FILE *plat_popen(const char *cmd, const char *mode);
/* Closes a stream from plat_popen and waits for the command. */
int plat_pclose(FILE *f);
/* Opens a file as fopen does. */
FILE *plat_fopen(const char *path, const char *mode);
/* Opens a file as open(2) does; O_CREAT makes it with mode 0666. */
int plat_open(const char *path, int flags);
/* read(2) on a descriptor from plat_open. */
ssize_t plat_read(int fd, void *buf, size_t n);
/* write(2) on a descriptor from plat_open. */
ssize_t plat_write(int fd, const void *buf, size_t n);
/* close(2) on a descriptor from plat_open. */
int plat_close(int fd);
/* ioctl(2) on a descriptor from plat_open: the spidev requests of Part 4.1. */
int plat_ioctl(int fd, unsigned long request, void *arg);
/* Current time in whole seconds, as time(2). */
time_t plat_time(void);
/* Broken-down local time of t into *out (thread-safe); returns out, or NULL. */
struct tm *plat_localtime(time_t t, struct tm *out);
/* Sleeps whole seconds. */
void plat_sleep(unsigned seconds);
/* Sleeps microseconds. */
void plat_usleep(unsigned microseconds);
/* Allocates memory (heap buffers that live within one call). */
void *plat_malloc(size_t n);
/* Frees memory from plat_malloc. */
void plat_free(void *p);
/* Starts a detached thread with a null argument; 0 on success. */
int plat_thread_start(pthread_t *handle, void *(*entry)(void *));
/* Blocks the calling thread for good without using the processor. */
void plat_block_forever(void);
/* Locks a mutex that may be held across other plat_* calls. */
void plat_mutex_lock(pthread_mutex_t *m);
/* Unlocks a mutex locked with plat_mutex_lock. */
void plat_mutex_unlock(pthread_mutex_t *m);

#endif
