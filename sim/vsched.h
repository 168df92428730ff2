/* Virtual-time scheduler of the simulator: a baton passed between the
 * daemon's threads so that exactly one runs at a time. A thread gives the
 * baton back when it sleeps, runs a command (its cost) or waits for a lock;
 * when every thread waits, the clock jumps to the earliest wake-up. Runs are
 * deterministic and free of data races by construction. */
#ifndef ZARVENT_VSCHED_H
#define ZARVENT_VSCHED_H

#include <stdint.h>

/* Installs the scheduler on the virtual board and gives the calling thread
 * the baton. pace 0 runs as fast as possible; pace p > 0 keeps virtual time
 * at p times real time (1 = real time). */
void sched_init(double pace);
/* The calling thread lets us microseconds of virtual time pass. */
void sched_wait(int64_t us);
/* Number of scheduled threads, the caller included. */
int sched_thread_count(void);

#endif
