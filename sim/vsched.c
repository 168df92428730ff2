/* Virtual-time scheduler (see sched.h). */
#include "vsched.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "vplat.h"
#include "vplat_internal.h"

enum { MAX_THREADS = 16, LOCK_RETRY_US = 50 };

struct sthread {
    pthread_cond_t cv;
    int64_t wake;
    uint64_t seq;
    void *(*entry)(void *);
};

static pthread_mutex_t S = PTHREAD_MUTEX_INITIALIZER;
static struct sthread threads[MAX_THREADS];
static int nthreads;
static int current; /* index of the thread holding the baton */
static uint64_t seq_counter;
static double pace_factor;
static _Thread_local int self = -1;

static void real_pause(int64_t virtual_us)
{
    if (pace_factor <= 0 || virtual_us <= 0)
        return;
    double real_us = (double)virtual_us / pace_factor;
    struct timespec ts = {(time_t)(real_us / 1e6), (long)((int64_t)real_us % 1000000) * 1000};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

/* Hands the baton to the thread with the earliest wake-up (FIFO among equals)
 * and waits until the caller holds it again. Called with S held. */
static void pass_baton(void)
{
    int next = 0;
    for (int i = 1; i < nthreads; i++) {
        if (threads[i].wake < threads[next].wake ||
            (threads[i].wake == threads[next].wake && threads[i].seq < threads[next].seq))
            next = i;
    }
    int64_t now = vplat_now_us();
    if (threads[next].wake > now) {
        int64_t jump = threads[next].wake - now;
        pthread_mutex_unlock(&S);
        real_pause(jump);
        pthread_mutex_lock(&S);
        vplat_set_now_us(threads[next].wake);
    }
    current = next;
    if (next != self) {
        pthread_cond_signal(&threads[next].cv);
        while (current != self)
            pthread_cond_wait(&threads[self].cv, &S);
    }
}

void sched_wait(int64_t us)
{
    pthread_mutex_lock(&S);
    if (self < 0) {
        pthread_mutex_unlock(&S);
        vplat_internal_advance(us);
        return;
    }
    threads[self].wake = vplat_now_us() + (us > 0 ? us : 0);
    threads[self].seq = ++seq_counter;
    pass_baton();
    pthread_mutex_unlock(&S);
}

struct start_arg {
    int index;
};

static void *trampoline(void *arg)
{
    int index = ((struct start_arg *)arg)->index;
    free(arg);
    pthread_mutex_lock(&S);
    self = index;
    while (current != self)
        pthread_cond_wait(&threads[self].cv, &S);
    void *(*entry)(void *) = threads[self].entry;
    pthread_mutex_unlock(&S);
    return entry(NULL);
}

static int start_thread(pthread_t *handle, void *(*entry)(void *))
{
    pthread_mutex_lock(&S);
    if (nthreads == MAX_THREADS) {
        pthread_mutex_unlock(&S);
        return EAGAIN;
    }
    int index = nthreads++;
    pthread_cond_init(&threads[index].cv, NULL);
    threads[index].entry = entry;
    threads[index].wake = vplat_now_us();
    threads[index].seq = ++seq_counter;
    struct start_arg *arg = malloc(sizeof *arg);
    if (arg == NULL) {
        nthreads--;
        pthread_mutex_unlock(&S);
        return ENOMEM;
    }
    arg->index = index;
    int rc = pthread_create(handle, NULL, trampoline, arg);
    if (rc == 0)
        pthread_detach(*handle);
    else {
        free(arg);
        nthreads--;
    }
    pthread_mutex_unlock(&S);
    return rc;
}

static void block_forever(void)
{
    for (;;)
        sched_wait(INT64_MAX / 4);
}

static void mutex_lock(pthread_mutex_t *m)
{
    /* A lock holder may be waiting for the baton: retry after a little
     * virtual time instead of blocking the whole board. */
    while (pthread_mutex_trylock(m) != 0)
        sched_wait(LOCK_RETRY_US);
}

static const struct vplat_sched_hooks HOOKS = {
    .wait = sched_wait,
    .thread_start = start_thread,
    .block_forever = block_forever,
    .mutex_lock = mutex_lock,
};

void sched_init(double pace)
{
    pthread_mutex_lock(&S);
    pace_factor = pace;
    nthreads = 1;
    pthread_cond_init(&threads[0].cv, NULL);
    threads[0].wake = 0;
    threads[0].seq = ++seq_counter;
    current = 0;
    self = 0;
    pthread_mutex_unlock(&S);
    vplat_internal_set_sched(&HOOKS);
}

int sched_thread_count(void)
{
    pthread_mutex_lock(&S);
    int c = nthreads;
    pthread_mutex_unlock(&S);
    return c;
}
