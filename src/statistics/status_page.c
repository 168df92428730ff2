/* Status page writer (Part 4.3). */
#include "statistics/Statistic.h"

#include <inttypes.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "daemon/shared.h"
#include "hardware/runner.h"
#include "platform/platform.h"

#define PAGE_FILE "/ramcache/zarvent/ntp_data.txt"
#define LOCK_FILE "/ramcache/zarvent/lock"
#define EMULATION_FILE "/usr/bin/Zarvent/nmea_emul_flag.txt"

/* Coefficients of the first-order low-pass filter (bilinear transform, cut-off
 * at 0.001 of the sampling rate): a = (1 - t) / (1 + t), b = t / (1 + t),
 * t = tan(pi * 0.001). */
static const double FILTER_A = 0.9937364715416146;
static const double FILTER_B = 0.0031317642291927056;

/* Float or double to a 32-bit integer, toward zero, saturated at the limits. */
static int32_t to_i32(double v)
{
    if (v >= 2147483647.0)
        return INT32_MAX;
    if (v <= -2147483648.0)
        return INT32_MIN;
    if (v != v)
        return 0;
    return (int32_t)v;
}

/* Step 5: the offset filter; returns the mean M and leaves the jitter in *jitter. */
static int32_t run_filter(long x, int32_t *jitter)
{
    float z = z_prev, q = dz_prev;
    double zt = FILTER_A * (double)z;
    zt = zt + FILTER_B * (double)x;
    float z1 = (float)zt;
    float y = z + z1;
    float e = y - (float)x;
    float e2 = e * e;
    double qt = FILTER_A * (double)q;
    qt = qt + FILTER_B * (double)e2;
    float q1 = (float)qt;
    float v = q + q1;
    z_prev = z1;
    dz_prev = q1;
    *jitter = to_i32(sqrt((double)v));
    return to_i32((double)y);
}

static const char *antenna_text(unsigned code)
{
    switch (code) {
    case 5:
        return "Short";
    case 6:
        return "Off";
    case 7:
        return "Ok";
    default:
        return "      ";
    }
}

/* Step 11: "On" when the flag file's first character is the digit 1. */
static int emulation_on(void)
{
    FILE *f = plat_fopen(EMULATION_FILE, "r");
    if (f == NULL)
        return 0;
    char text[2] = "";
    char *got = fgets(text, sizeof text, f);
    fclose(f);
    return got != NULL && strtol(text, NULL, 10) == 1;
}

/* The date (11 characters) and time (8 characters) of a 24-character slot. */
static void slot_date_time(size_t pos, char *date, char *time_text)
{
    command_out_get(pos, date, 11);
    date[11] = '\0';
    command_out_get(pos + 12, time_text, 8);
    time_text[8] = '\0';
}

int FileWrite(void)
{
    /* Part 4.3 "Left to the implementer": when the lock cannot be created
     * (RAM disk missing), the page is still attempted; it has its own
     * failure path. */
    FILE *lock = plat_fopen(LOCK_FILE, "w");
    if (lock != NULL)
        fclose(lock);

    FILE *page = plat_fopen(PAGE_FILE, "w");
    if (page == NULL) {
        perror("Cannot open file\n");
        return 0; /* the lock stays until a later cycle removes it */
    }

    char date[12], time_text[9];
    slot_date_time(CO_NOW, date, time_text);
    fputs("<b>UTC</b>", page);
    fprintf(page, "\t\t<b>Date:</b>\t%s\n\t\t<b>Time:</b>\t%s\n", date, time_text);

    char offset_text[10];
    command_out_text(CO_OFFSET, offset_text, sizeof offset_text);
    long x = strtol(offset_text, NULL, 10);

    long mean = 0;
    long jitter;
    if (Sync_En == 1) {
        int32_t j;
        mean = run_filter(x, &j);
        Jitter = j;
        jitter = j;
    } else {
        jitter = Jitter;
    }

    char reference[18];
    command_out_text(CO_REF_NAME, reference, sizeof reference);
    fprintf(page,
            "<b>Current Offset [ns]:</b>\t%ld\n<b>Mean Offset [ns]:</b>\t%ld\n"
            "<b>Jitter [ns]:</b>\t\t%ld\n<b>Reference time:</b>    %s\n",
            x, mean, jitter, reference);

    fputs(atomic_load(&Alarm) ? "<b>Alarm at:</b> " : "<b>Uptime from:</b> ", page);
    char event_date[12], event_time[9];
    slot_date_time(CO_EVENT, event_date, event_time);
    fprintf(page, "\t<b>Date:</b>\t%s\n\t\t<b>Time:</b>\t%s\n", event_date, event_time);

    fputs("\n<b>PTP Packets:\t\tLast\tAverage</b>\n", page);

    struct tm t;
    timeinfo_get(&t);
    int s = t.tm_sec > 59 ? 59 : t.tm_sec;
    int prev = s == 0 ? 59 : s - 1;
    int minute = t.tm_hour * 60 + t.tm_min;
    int day = t.tm_mday >= 1 && t.tm_mday <= 31 ? t.tm_mday : 0;
    fprintf(page,
            "<b>Request per Second:</b>\t%u\t%.2f\n<b>Response per Second:</b>\t%u\t%.2f\n"
            "<b>Request per Minute:</b>\t%u\t%.2f\n<b>Response per Minute:</b>\t%u\t%.2f\n"
            "<b>Request per Hour:</b>\t%" PRIu64 "\t%.2f\n<b>Response per Hour:</b>\t%" PRIu64
            "\t%.2f\n<b>Request per Day:</b>\t%" PRIu64 "\n<b>Response per Day:</b>\t%" PRIu64 "\n",
            (unsigned)(uint32_t)Stat_Out.ReqSec[prev], (double)Stat_Out.ReqAvg,
            (unsigned)(uint32_t)Stat_Out.RespSec[prev], (double)Stat_Out.RespAvg,
            (unsigned)(uint32_t)Stat_Out.ReqMin[minute], (double)Stat_Out.ReqMinSum,
            (unsigned)(uint32_t)Stat_Out.RespMin[minute], (double)Stat_Out.RespMinSum,
            Stat_Out.ReqHour[t.tm_hour], (double)Stat_Out.ReqHourSum, Stat_Out.RespHour[t.tm_hour],
            (double)Stat_Out.RespHourSum, Stat_Out.ReqDay[day], Stat_Out.RespDay[day]);

    fprintf(page, "\n<b>Antenna:</b> %s\n", antenna_text(command_out_byte(CO_ANTENNA)));

    fputs(emulation_on() ? "<b>GPS Emulation:</b>\tOn\n" : "<b>GPS Emulation:</b>\tOff\n", page);

    slot_date_time(CO_NOW, date, time_text);
    fprintf(page, "%s\n%s\n", date, time_text);

    fclose(page);
    run_command("rm " LOCK_FILE, "r");
    return 0;
}
