/* The demo's screen (see view.h). */
#include "view.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "board.h"
#include "daemon/shared.h"
#include "vplat.h"

enum { PLOT_POINTS = 72, PLOT_ROWS = 11 };

/* The status page as the web interface shows it: tags removed, tabs kept. */
static void print_page(void)
{
    char *page = vplat_read_file("/ramcache/zarvent/ntp_data.txt");
    if (page == NULL) {
        printf("  (no status page yet)\n");
        return;
    }
    int in_tag = 0;
    putchar(' ');
    putchar(' ');
    for (const char *p = page; *p; p++) {
        if (*p == '<')
            in_tag = 1;
        else if (*p == '>')
            in_tag = 0;
        else if (!in_tag) {
            putchar(*p);
            if (*p == '\n' && p[1])
                printf("  ");
        }
    }
    free(page);
}

static int by_name(const void *a, const void *b)
{
    return strcmp(*(char *const *)a, *(char *const *)b);
}

/* The newest chart points, from the chart files the web interface draws. */
static int chart_points(long *values, int max)
{
    DIR *d = opendir(vplat_path("/ramcache/zarvent"));
    if (d == NULL)
        return 0;
    char *names[4096];
    int count = 0;
    struct dirent *e;
    while ((e = readdir(d)) != NULL && count < 4096)
        if (strncmp(e->d_name, "ptp_data_", 9) == 0 && strchr(e->d_name, '~'))
            names[count++] = strdup(e->d_name);
    closedir(d);
    qsort(names, (size_t)count, sizeof *names, by_name);
    long ring[PLOT_POINTS];
    int got = 0;
    for (int i = count - 3 < 0 ? 0 : count - 3; i < count; i++) {
        char path[512];
        snprintf(path, sizeof path, "/ramcache/zarvent/%s", names[i]);
        char *text = vplat_read_file(path);
        for (const char *p = text ? strstr(text, "), ") : NULL; p; p = strstr(p + 1, "), "))
            ring[got++ % PLOT_POINTS] = strtol(p + 3, NULL, 10);
        free(text);
    }
    for (int i = 0; i < count; i++)
        free(names[i]);
    int shown = got < max ? got : max;
    for (int i = 0; i < shown; i++)
        values[i] = ring[(got - shown + i) % PLOT_POINTS];
    return shown;
}

static void print_plot(void)
{
    long v[PLOT_POINTS];
    int count = chart_points(v, PLOT_POINTS);
    if (count == 0) {
        printf("  (no chart points yet: steering starts after 60 valid cycles)\n");
        return;
    }
    long span = 10;
    for (int i = 0; i < count; i++)
        if (labs(v[i]) > span)
            span = labs(v[i]);
    for (int row = 0; row < PLOT_ROWS; row++) {
        double level = span - (2.0 * span * row) / (PLOT_ROWS - 1);
        double half = (double)span / (PLOT_ROWS - 1);
        printf("  %7.0f |", level);
        for (int i = 0; i < count; i++)
            putchar(v[i] > level - half && v[i] <= level + half ? '*'
                    : row == PLOT_ROWS / 2                      ? '-'
                                                                : ' ');
        putchar('\n');
    }
    printf("          last %d points, newest right; offset [ns] after the clamp to +-10000\n",
           count);
}

static const char *led(int line)
{
    int level = vplat_gpio_level(line);
    return level < 0 ? "?" : level ? "1" : "0";
}

void view_second(int64_t t_s, void *ctx)
{
    const struct view *v = ctx;
    time_t t = (time_t)t_s;
    struct tm tm;
    gmtime_r(&t, &tm);
    struct board_stats s;
    board_stats(&s);
    printf("\033[H\033[2J");
    printf("Zarvent on the simulated board  |  scenario %s  |  board time %04d-%02d-%02d "
           "%02d:%02d:%02d UTC",
           v->scenario, tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min,
           tm.tm_sec);
    if (v->pace > 0)
        printf("  |  pace %gx\n", v->pace);
    else
        printf("  |  fast\n");
    printf("\n-- status page (%s/board/ramcache/zarvent/ntp_data.txt)\n", v->out_dir);
    print_page();
    printf("\n-- offset chart (chart files %s/board/ramcache/zarvent/ptp_data_*)\n", v->out_dir);
    print_plot();
    char reference[18];
    command_out_text(CO_REF_NAME, reference, sizeof reference);
    unsigned antenna = command_out_byte(CO_ANTENNA);
    printf("\n-- states\n");
    printf("  reference %s   alarm %s   antenna %s   steering %s\n",
           reference[0] ? reference : "(not yet asked)", atomic_load(&Alarm) ? "ON" : "off",
           antenna == 7   ? "Ok"
           : antenna == 6 ? "Off"
           : antenna == 5 ? "Short"
                          : "held off / unknown",
           Sync_En ? "on" : "off (waiting for 60 valid cycles)");
    printf("\n-- LEDs and lines\n");
    printf("  reference 72/73: %s %s   alarm 76/77: %s %s   antenna 74/75: %s %s   "
           "client 70/71: %s %s   factory 78: %s   antenna feed 85: %s\n",
           led(72), led(73), led(76), led(77), led(74), led(75), led(70), led(71), led(78),
           led(85));
    printf("  DAC code %d   oscillator offset %.1f ns   hand-overs accepted %d rejected %d\n",
           s.last_dac_code, s.offset_ns, s.handovers_accepted, s.handovers_rejected);
    printf("\n-- files: status page, chart files and errorlog in %s/board/ramcache/zarvent/,\n"
           "   stat.txt in %s/board/ftpdir/, run logs (commands, lines, DAC words) in %s/logs/ at "
           "the end\n"
           "   Ctrl-C stops the run.\n",
           v->out_dir, v->out_dir, v->out_dir);
    fflush(stdout);
}
