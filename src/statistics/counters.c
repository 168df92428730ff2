/* Packet counters (Part 4.2). */
#include "statistics/Statistic.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include "daemon/shared.h"
#include "hardware/registers.h"
#include "platform/platform.h"

#define ENABLE_FILE "/usr/bin/Zarvent/enable.cfg"
#define RESPONSES_CMD "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define REQUESTS_CMD "./spiWrite -m 0 -l 4 -d 2 24 0 0"

enum { SLOTS_PER_DAY = 1440, NO_READING = 65535 };

/* The fields of one counter (requests or responses) in Stat_Out. */
struct counter_fields {
    uint64_t *sec, *min, *hour, *day;
    float *avg, *min_sum, *hour_sum;
};

/* Step 1: the first byte of enable.cfg as a decimal number, low 8 bits.
 * Part 4.2 "Left to the implementer": a missing or empty file is off. */
static int statistics_flag(void)
{
    FILE *f = plat_fopen(ENABLE_FILE, "r");
    if (f == NULL)
        return 0;
    char text[2] = "";
    size_t got = fread(text, 1, 1, f);
    fclose(f);
    if (got != 1)
        return 0;
    return (uint8_t)strtol(text, NULL, 10);
}

/* A counter reading: L + 256 H from the fifth line; 65535 is no reading and
 * counts as 0 (Part 4.2 Failure handling). Our choice for a read that fails
 * (the tool cannot start or prints fewer than five lines), which Part 4.2
 * does not name: it is no reading either and counts as 0, so the slots, the
 * average and the sums never take a value that did not come from the FPGA. */
static uint64_t counter_reading(const char *cmd)
{
    long value;
    if (reg_read_word(cmd, &value) != 0 || value == NO_READING || value < 0)
        return 0;
    return (uint64_t)value;
}

/* Steps 4.1 to 4.7 for one counter, at second s, minute m, hour h, day d. */
static void aggregate(const struct counter_fields *c, uint64_t reading, const struct tm *t)
{
    int s = t->tm_sec, m = t->tm_min, h = t->tm_hour, d = t->tm_mday;
    if (s > 59)
        s = 59; /* a leap second shares the slot of second 59 */
    c->sec[s] = reading;
    *c->avg = ((float)reading + *c->avg) * 0.5f;

    if (s == 0) {
        uint64_t total = 0;
        for (int i = 0; i < 60; i++)
            total += c->sec[i];
        c->min[h * 60 + m] = total;
    }

    float min_sum = 0.0f;
    for (int i = 0; i < 60; i++)
        min_sum += (float)c->sec[i];
    *c->min_sum = min_sum;

    if (s == 0 && m == 0) {
        int first = (h == 0 ? 23 : h - 1) * 60;
        uint64_t total = 0;
        for (int i = 0; i < 60; i++)
            total += c->min[first + i];
        c->hour[h] = total;
    }

    if (s == 0) {
        /* The 60 minute slots before the current one, wrapping from slot 0
         * back to slot 1439; the slot stored in this cycle is not included. */
        int current = h * 60 + m;
        float hour_sum = 0.0f;
        for (int i = 60; i >= 1; i--)
            hour_sum += (float)c->min[(current - i + SLOTS_PER_DAY) % SLOTS_PER_DAY];
        *c->hour_sum = hour_sum;
    }

    if (s == 0 && m == 0 && h == 0 && d >= 1 && d <= 31) {
        uint64_t total = 0;
        for (int i = 0; i < 24; i++)
            total += c->hour[i];
        c->day[d] = total;
    }
}

/* Part 4.2 "Left to the implementer", our choice: the register-7 date and
 * time command that the step composes at second 0 but never runs is not
 * composed; nothing depends on it. */
void Stat_read(void)
{
    int flag = statistics_flag();

    /* Step 2: the time of this cycle for every later step and thread. */
    timeinfo_refresh(plat_time());
    struct tm t;
    timeinfo_get(&t);

    if (flag)
        Stat_capture();

    static const struct counter_fields responses = {
        Stat_Out.RespSec,  Stat_Out.RespMin,     Stat_Out.RespHour,    Stat_Out.RespDay,
        &Stat_Out.RespAvg, &Stat_Out.RespMinSum, &Stat_Out.RespHourSum};
    static const struct counter_fields requests = {
        Stat_Out.ReqSec,  Stat_Out.ReqMin,     Stat_Out.ReqHour,    Stat_Out.ReqDay,
        &Stat_Out.ReqAvg, &Stat_Out.ReqMinSum, &Stat_Out.ReqHourSum};
    aggregate(&responses, counter_reading(RESPONSES_CMD), &t);
    aggregate(&requests, counter_reading(REQUESTS_CMD), &t);
}
