/* Oscillator steering (Part 3.2). */
#include "cycle/steering.h"

#include <float.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "hardware/dac.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

/* The law must give the same codes on every architecture: each product is
 * rounded to double before it is added (no fused multiply-add: the build uses
 * -ffp-contract=off), and no excess precision may be kept in registers. */
#if defined(FLT_EVAL_METHOD) && FLT_EVAL_METHOD != 0
#error "Part 3.2 needs double arithmetic without excess precision (FLT_EVAL_METHOD 0)"
#endif

#define DAC_VOLTAGE_FILE "/usr/bin/Zarvent/dac_voltage"

enum { CHART_NAME = 64, OFFSET_TEXT = 10 };

int32_t steering_to_i32(double v)
{
    /* Part 3.2 "Left to the implementer": a double outside the 32-bit range
     * saturates at the nearest limit; inside it, the conversion truncates
     * toward zero as C's conversion does. */
    if (v >= 2147483648.0)
        return INT32_MAX;
    if (v <= -2147483649.0)
        return INT32_MIN;
    if (v != v) /* not a number: cannot come from finite operands */
        return 0;
    return (int32_t)v;
}

uint32_t steering_dac_code(int32_t u)
{
    /* Step 9: the DAC takes 0..65535; a negative code is 0, never wrapped. */
    if (u > DAC_CODE_MAX)
        return DAC_CODE_MAX;
    if (u < 0)
        return 0;
    return (uint32_t)u;
}

struct steering_step steering_law(int32_t centre, long offset, int32_t summ_prev, int64_t intg)
{
    struct steering_step r;

    /* Step 2: clamp to -10000..10000 ns. */
    if (offset > STEER_OFFSET_LIMIT)
        offset = STEER_OFFSET_LIMIT;
    if (offset < -STEER_OFFSET_LIMIT)
        offset = -STEER_OFFSET_LIMIT;
    r.e = (int32_t)offset;

    /* Step 3: each product rounded to double, then added; truncation. */
    double filtered = 0.95 * (double)summ_prev;
    filtered = filtered + 0.05 * (double)r.e;
    r.S = steering_to_i32(filtered);

    /* Part 3.2 "Left to the implementer": `Intg` is never clamped and would
     * overflow 32 bits after about 30 hours at full-scale offset, so it is a
     * 64-bit accumulator (declared int64_t in shared.h). At most 20000 is
     * added per second, so it cannot overflow in the life of the board, and
     * every value it can reach is exact in a double. Step 4. */
    r.Intg = intg + r.e + r.S;

    /* Step 5, in 64 bits so that no pair of 32-bit values can overflow. */
    r.d = (int64_t)r.S - r.e;

    /* Step 6: centre, then + 0.4 S, then + 0.005 Intg, then - 0.05 d. */
    double u = (double)centre;
    u = u + 0.4 * (double)r.S;
    u = u + 0.005 * (double)r.Intg;
    u = u - 0.05 * (double)r.d;
    r.exact = u;
    r.u = steering_to_i32(u);
    return r;
}

/* Loads the centre value (step 1): keeps the previous one when the file is
 * missing or holds no number. */
static void load_centre(void)
{
    FILE *f = plat_fopen(DAC_VOLTAGE_FILE, "r");
    if (f == NULL)
        return;
    int value;
    if (fscanf(f, "%d", &value) == 1)
        DAC_VOLTAGE = value;
    fclose(f);
}

void DAC_DEFAULTS(void)
{
    load_centre();
    SPIWriteInt(4, 2048);
    /* Part 2.3 "Left to the implementer": the centre comes from a file
     * without a range check; it is clamped to 0..65535 here, so a negative
     * value is sent as 0 rather than reaching SPIWriteInt as a huge unsigned
     * number. DAC_VOLTAGE keeps the value read, as the law uses it. */
    SPIWriteInt(3, steering_dac_code(DAC_VOLTAGE));
}

/* ---- chart files ---- */

/* Names of the chart files this process started, oldest first, in a ring. */
static char chart_names[CHART_FILES_KEPT + 1][CHART_NAME];
static int chart_first, chart_count;

int steering_chart_count(void)
{
    return chart_count;
}

void steering_chart_forget(void)
{
    chart_first = 0;
    chart_count = 0;
}

static const char *chart_at(int i)
{
    return chart_names[(chart_first + i) % (CHART_FILES_KEPT + 1)];
}

/* Remembers a chart file the first time a point goes into it and removes
 * the oldest remembered one beyond the bound (see steering.h). Files left
 * by an earlier run of the daemon are not known here and stay. */
static void chart_remember(const char *name)
{
    if (chart_count > 0 && strcmp(chart_at(chart_count - 1), name) == 0)
        return; /* the same minute as the last point */
    for (int i = 0; i < chart_count; i++)
        if (strcmp(chart_at(i), name) == 0)
            return; /* the clock went back into a minute already kept */
    snprintf(chart_names[(chart_first + chart_count) % (CHART_FILES_KEPT + 1)], CHART_NAME, "%s",
             name);
    chart_count++;
    if (chart_count > CHART_FILES_KEPT) {
        char cmd[CHART_NAME + 8];
        snprintf(cmd, sizeof cmd, "rm -f %s", chart_at(0));
        run_command(cmd, "r");
        chart_first = (chart_first + 1) % (CHART_FILES_KEPT + 1);
        chart_count--;
    }
}

/* Step 8: one chart point in the file of the current minute. */
static void chart_point(int32_t offset)
{
    struct tm tm;
    timeinfo_get(&tm);
    char name[CHART_NAME];
    snprintf(name, sizeof name, "/ramcache/zarvent/ptp_data_%d~%02d~%02d_%02d-%02d",
             tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min);
    FILE *f = plat_fopen(name, "a");
    if (f == NULL)
        return; /* RAM disk full or absent: the point is dropped */
    fprintf(f, "[new Date(\"%02d/%02d/%d %02d:%02d:%02d\"), %ld],\n", tm.tm_mon + 1, tm.tm_mday,
            tm.tm_year + 1900, tm.tm_hour, tm.tm_min, tm.tm_sec, (long)offset);
    fclose(f);
    chart_remember(name);
}

void Calculate_offset(void)
{
    load_centre();

    /* Step 2: the offset text that ControlOffset left at position 53. */
    char text[OFFSET_TEXT];
    command_out_text(CO_OFFSET, text, sizeof text);
    long offset = strtol(text, NULL, 10);

    struct steering_step s = steering_law(DAC_VOLTAGE, offset, Summ_prev, Intg);
    Sync_Offset = s.e;
    Intg = s.Intg;
    Summ_prev = s.S; /* step 7 */
    Save_Sync = s.u;

    chart_point(Sync_Offset); /* step 8 */

    Save_Sync = (int32_t)steering_dac_code(Save_Sync); /* step 9 */

    /* Step 10: register 1 = register 2 with bit 0 set. A failed read is not
     * written back (Part 2.2 "Left to the implementer"). */
    int control = Read_Control();
    if (control >= 0)
        reg_write(1, control | 1, "w");

    SPIWriteInt(3, (unsigned)Save_Sync); /* step 11 */
}
