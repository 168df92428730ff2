/* The demo's screen: what the appliance's web interface would show, redrawn
 * once per board second from the simulated board's files and lines. */
#ifndef ZARVENT_VIEW_H
#define ZARVENT_VIEW_H

#include <stdint.h>

struct view {
    const char *out_dir;
    const char *scenario;
    double pace;
};

/* Redraws the screen for board time t_s (an each_second callback of sim_run). */
void view_second(int64_t t_s, void *ctx);

#endif
