/* zarvent-sim: the daemon against the simulated board.
 *   zarvent-sim --scenario FILE --out DIR [--pace P|fast] [--duration S] [--show]
 * --show redraws the demo screen every board second.
 * The board's files stay in DIR/board (for example DIR/board/ramcache/zarvent/ntp_data.txt),
 * the run's logs in DIR/logs. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "simrun.h"
#include "view.h"

static volatile int stop_requested;

static void on_signal(int sig)
{
    (void)sig;
    stop_requested = 1;
}

static void usage(void)
{
    fprintf(
        stderr,
        "usage: zarvent-sim --scenario FILE --out DIR [--pace P|fast] [--duration S] [--show]\n");
}

int main(int argc, char **argv)
{
    struct sim_options o = {0};
    int show = 0;
    o.pace = 0;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--scenario") == 0 && i + 1 < argc)
            o.scenario_path = argv[++i];
        else if (strcmp(argv[i], "--out") == 0 && i + 1 < argc)
            o.out_dir = argv[++i];
        else if (strcmp(argv[i], "--pace") == 0 && i + 1 < argc) {
            i++;
            o.pace = strcmp(argv[i], "fast") == 0 ? 0 : atof(argv[i]);
        } else if (strcmp(argv[i], "--duration") == 0 && i + 1 < argc)
            o.duration_s = atoll(argv[++i]);
        else if (strcmp(argv[i], "--show") == 0)
            show = 1;
        else {
            usage();
            return 2;
        }
    }
    if (o.scenario_path == NULL || o.out_dir == NULL) {
        usage();
        return 2;
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);
    o.stop = &stop_requested;
    struct view v = {o.out_dir, o.scenario_path, o.pace};
    if (show) {
        o.each_second = view_second;
        o.ctx = &v;
    }
    int rc = sim_run(&o);
    if (rc == 0)
        printf("board files: %s/board   logs: %s/logs\n", o.out_dir, o.out_dir);
    fflush(stdout);
    /* The daemon's threads are parked for good; end the process here. */
    _exit(rc == 0 ? 0 : 1);
}
