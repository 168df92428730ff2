/* One simulator run (see simrun.h). */
#include "simrun.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include "board.h"
#include "daemon/startup.h"
#include "vsched.h"
#include "vplat.h"

struct event {
    int64_t at_s;
    int line;
    char *text;
};

struct scenario {
    time_t start;
    int64_t duration_s;
    int64_t command_cost_us;
    struct board_config cfg;
    struct event *events;
    size_t nevents, capevents;
};

static int split(char *s, char **w, int max)
{
    int count = 0;
    char *save = NULL;
    for (char *t = strtok_r(s, " \t\r\n", &save); t && count < max;
         t = strtok_r(NULL, " \t\r\n", &save))
        w[count++] = t;
    return count;
}

static int parse_start(const char *text, time_t *out)
{
    struct tm t = {0};
    if (sscanf(text, "%d-%d-%dT%d:%d:%d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
               &t.tm_sec) != 6)
        return -1;
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    *out = timegm(&t);
    return 0;
}

static int add_event(struct scenario *s, int64_t at, int line, const char *text)
{
    if (s->nevents == s->capevents) {
        s->capevents = s->capevents ? s->capevents * 2 : 32;
        struct event *e = realloc(s->events, s->capevents * sizeof *e);
        if (e == NULL)
            return -1;
        s->events = e;
    }
    s->events[s->nevents++] = (struct event){at, line, strdup(text)};
    return 0;
}

static int scenario_error(int line, const char *what)
{
    fprintf(stderr, "scenario line %d: %s\n", line, what);
    return -1;
}

/* Settings (start, duration, seed, osc, pulse, cost) and timed commands ("at T ..."). */
static int parse_scenario(const char *text, struct scenario *s)
{
    memset(s, 0, sizeof *s);
    board_default_config(&s->cfg);
    s->start = 1794835620; /* 2026-11-16T13:27:00 UTC */
    s->duration_s = 600;
    s->command_cost_us = 4000;
    char *copy = strdup(text);
    if (copy == NULL)
        return -1;
    int lineno = 0, rc = 0;
    char *save = NULL;
    for (char *ln = strtok_r(copy, "\n", &save); ln && rc == 0; ln = strtok_r(NULL, "\n", &save)) {
        lineno++;
        char *hash = strchr(ln, '#');
        if (hash)
            *hash = '\0';
        char buf[512];
        snprintf(buf, sizeof buf, "%s", ln);
        char *w[32];
        int nw = split(buf, w, 32);
        if (nw == 0)
            continue;
        if (strcmp(w[0], "at") == 0) {
            if (nw < 3)
                rc = scenario_error(lineno, "at needs a time and a command");
            else {
                char *rest = strstr(ln, w[2]);
                rc = add_event(s, strtoll(w[1], NULL, 10), lineno, rest);
            }
        } else if (strcmp(w[0], "start") == 0 && nw == 2) {
            if (parse_start(w[1], &s->start))
                rc = scenario_error(lineno, "start wants YYYY-MM-DDTHH:MM:SS (UTC)");
        } else if (strcmp(w[0], "duration") == 0 && nw == 2) {
            s->duration_s = strtoll(w[1], NULL, 10);
        } else if (strcmp(w[0], "seed") == 0 && nw == 2) {
            s->cfg.seed = (uint32_t)strtoul(w[1], NULL, 10);
        } else if (strcmp(w[0], "pulse") == 0 && nw == 2) {
            s->cfg.pulse_high_us = strtoll(w[1], NULL, 10) * 1000;
        } else if (strcmp(w[0], "cost") == 0 && nw == 2) {
            s->command_cost_us = strtoll(w[1], NULL, 10);
        } else if (strcmp(w[0], "osc") == 0) {
            for (int i = 1; i + 1 < nw; i += 2) {
                double v = strtod(w[i + 1], NULL);
                if (strcmp(w[i], "gain") == 0)
                    s->cfg.gain = v;
                else if (strcmp(w[i], "natural") == 0)
                    s->cfg.natural_code = (int)v;
                else if (strcmp(w[i], "noise") == 0)
                    s->cfg.noise_ns = v;
                else if (strcmp(w[i], "offset") == 0)
                    s->cfg.initial_offset = v;
                else
                    rc = scenario_error(lineno, "osc takes gain, natural, noise, offset");
            }
        } else {
            /* A command without "at" applies from the start. */
            rc = add_event(s, 0, lineno, ln);
        }
    }
    free(copy);
    return rc;
}

static char *read_all(const char *path)
{
    FILE *f = fopen(path, "r");
    if (f == NULL)
        return NULL;
    size_t cap = 4096, len = 0;
    char *s = malloc(cap);
    size_t got;
    while (s && (got = fread(s + len, 1, cap - len - 1, f)) > 0) {
        len += got;
        if (len + 1 == cap) {
            cap *= 2;
            char *t = realloc(s, cap);
            if (t == NULL) {
                free(s);
                s = NULL;
            }
            s = t;
        }
    }
    fclose(f);
    if (s)
        s[len] = '\0';
    return s;
}

/* "snapshot NAME [BOARD_PATH]": a copy of a board file (the status page by
 * default) into the logs, taken 0.9 s into the second, after its cycle. */
static void take_snapshot(char **w, int nw, const char *log_dir)
{
    const char *path = nw >= 3 ? w[2] : "/ramcache/zarvent/ntp_data.txt";
    sched_wait(900000);
    char *content = vplat_read_file(path);
    char out[1024];
    mkdir(log_dir, 0755);
    snprintf(out, sizeof out, "%s/%s", log_dir, w[1]);
    FILE *f = fopen(out, "w");
    if (f) {
        if (content)
            fputs(content, f);
        fclose(f);
    }
    free(content);
}

static int apply_event(const struct event *e, const char *log_dir)
{
    char buf[512];
    snprintf(buf, sizeof buf, "%s", e->text);
    char *w[32];
    int nw = split(buf, w, 32);
    if (nw >= 2 && strcmp(w[0], "snapshot") == 0) {
        take_snapshot(w, nw, log_dir);
        return 0;
    }
    char error[256];
    if (board_command(w, nw, error, sizeof error) != 0) {
        fprintf(stderr, "scenario line %d: %s\n", e->line, error);
        return -1;
    }
    return 0;
}

static int by_time(const void *a, const void *b)
{
    const struct event *x = a, *y = b;
    if (x->at_s != y->at_s)
        return x->at_s < y->at_s ? -1 : 1;
    return x->line - y->line;
}

int sim_run(const struct sim_options *o)
{
    char *text = o->scenario_path ? read_all(o->scenario_path)
                                  : strdup(o->scenario_text ? o->scenario_text : "");
    if (text == NULL) {
        fprintf(stderr, "cannot read scenario %s\n", o->scenario_path ? o->scenario_path : "");
        return -1;
    }
    struct scenario sc;
    int rc = parse_scenario(text, &sc);
    free(text);
    if (rc)
        return -1;
    if (o->duration_s > 0)
        sc.duration_s = o->duration_s;
    qsort(sc.events, sc.nevents, sizeof *sc.events, by_time);

    char board_dir[1024], log_dir[1024];
    snprintf(board_dir, sizeof board_dir, "%s/board", o->out_dir);
    snprintf(log_dir, sizeof log_dir, "%s/logs", o->out_dir);
    vplat_reset_in(board_dir, sc.start);
    vplat_board_tree();
    board_init(&sc.cfg);
    size_t next = 0;
    while (next < sc.nevents && sc.events[next].at_s <= 0)
        if (apply_event(&sc.events[next++], log_dir))
            return -1;
    vplat_set_command_cost_us(sc.command_cost_us);
    sched_init(o->pace);

    /* The daemon's own start, as src/daemon/main.c does it. */
    CreateRAMDisk();
    CreateThreads();

    int64_t start_us = (int64_t)sc.start * 1000000;
    for (int64_t sec = 1; sec <= sc.duration_s; sec++) {
        sched_wait(start_us + sec * 1000000 - vplat_now_us());
        while (next < sc.nevents && sc.events[next].at_s <= sec)
            if (apply_event(&sc.events[next++], log_dir))
                return -1;
        if (o->each_second)
            o->each_second(sc.start + sec, o->ctx);
        if (o->stop && *o->stop)
            break;
    }
    board_write_logs(log_dir);
    for (size_t i = 0; i < sc.nevents; i++)
        free(sc.events[i].text);
    free(sc.events);
    return 0;
}
