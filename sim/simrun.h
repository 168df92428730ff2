/* One run of the whole daemon (all three threads, the unchanged daemon
 * logic) against the board model, driven by a scenario, in virtual time. */
#ifndef ZARVENT_SIMRUN_H
#define ZARVENT_SIMRUN_H

#include <stdint.h>

struct sim_options {
    const char *scenario_path; /* scenario file, or NULL to use scenario_text */
    const char *scenario_text;
    const char *out_dir; /* board tree in out_dir/board, logs in out_dir/logs */
    double pace;         /* 0 as fast as possible, 1 real time, p: p times real time */
    int64_t duration_s;  /* overrides the scenario's duration when > 0 */
    /* Called once per virtual second while the run lasts (may be NULL). */
    void (*each_second)(int64_t t_s, void *ctx);
    void *ctx;
    volatile int *stop; /* the run ends at the next second when *stop becomes non-zero */
};

/* Runs the scenario; 0 on success, -1 on a scenario error (message on stderr).
 * The daemon's threads stay parked afterwards: call it once per process. */
int sim_run(const struct sim_options *o);

#endif
