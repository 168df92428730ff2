/* Hooks through which the simulator's scheduler takes over the virtual
 * board's time, threads and locks (sim/vsched.c). */
#ifndef ZARVENT_VPLAT_INTERNAL_H
#define ZARVENT_VPLAT_INTERNAL_H

#include <pthread.h>
#include <stdint.h>

struct vplat_sched_hooks {
    void (*wait)(int64_t us);                            /* let us of virtual time pass */
    int (*thread_start)(pthread_t *, void *(*)(void *)); /* start a scheduled thread */
    void (*block_forever)(void);
    void (*mutex_lock)(pthread_mutex_t *m);
};

/* Installs (or with NULL removes) the scheduler's hooks. */
void vplat_internal_set_sched(const struct vplat_sched_hooks *hooks);
/* Moves the virtual clock forward. */
void vplat_internal_advance(int64_t us);

#endif
