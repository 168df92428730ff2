/* Scenario: a full simulated day of packet counters across the day, month
 * and year rollover at 2027-01-01 00:00:00. The status page's figures are
 * checked against sums computed independently from the counter values the
 * board served (logs/counts.log), by time window rather than by slot. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scenario_support.h"

#define START 1798675200LL /* 2026-12-31T00:00:00 UTC */

const char SCENARIO[] = "start 2026-12-31T00:00:00\n"
                        "duration 87000\n"
                        "seed 5\n"
                        "cost 2000\n"
                        "load 40 25\n"
                        "rmc A\n"
                        "peer system\n"
                        "at 45240 snapshot minute-page\n" /* 12:34:00 */
                        "at 18000 snapshot hour-page\n"   /* 05:00:00 */
                        "at 86400 snapshot day-page\n"    /* 2027-01-01 00:00:00 */
                        "at 87000 snapshot wrap-page\n";  /* 2027-01-01 00:10:00 */

static long *requests, *responses; /* value served at START + i, -1 when none */
static long nseconds = 87001;

static int run_once(void **state)
{
    scenario_group_setup(state);
    requests = malloc(sizeof(long) * (size_t)nseconds);
    responses = malloc(sizeof(long) * (size_t)nseconds);
    for (long i = 0; i < nseconds; i++)
        requests[i] = responses[i] = -1;
    char *counts = run_log(&r, "counts.log");
    for (char *p = counts; p && *p;) {
        char *end;
        long long t = strtoll(p, &end, 10);
        long reg = strtol(end, &end, 10);
        long v = strtol(end, &end, 10);
        if (t >= START && t - START < nseconds)
            (reg == 24 ? requests : responses)[t - START] = v;
        p = strchr(end, '\n');
        if (p)
            p++;
    }
    free(counts);
    return 0;
}

static int cleanup(void **state)
{
    free(requests);
    free(responses);
    return scenario_group_teardown(state);
}

/* Sum of the values served in [from, to] (seconds after START). */
static long long window(const long *values, long from, long to)
{
    long long sum = 0;
    for (long i = from < 0 ? 0 : from; i <= to && i < nseconds; i++)
        if (values[i] > 0)
            sum += values[i];
    return sum;
}

static long long page_value(const char *page, const char *label)
{
    const char *at = strstr(page, label);
    if (at == NULL)
        fail_msg("page has no %s", label);
    return strtoll(at + strlen(label), NULL, 10);
}

static void test_every_second_read(void **state)
{
    (void)state;
    /* One cycle per second for the whole day: every second has its readings. */
    for (long i = 1; i < nseconds - 1; i++) {
        if (requests[i] < 0 || responses[i] < 0)
            fail_msg("no reading at second %ld", i);
    }
}

static void test_minute(void **state)
{
    (void)state;
    /* At 12:34:00 the minute figure covers 12:33:01 .. 12:34:00 (E4.2-1's rule). */
    char *page = run_log(&r, "minute-page");
    long t = 45240;
    assert_int_equal(page_value(page, "<b>Request per Minute:</b>\t"), window(requests, t - 59, t));
    assert_int_equal(page_value(page, "<b>Response per Minute:</b>\t"),
                     window(responses, t - 59, t));
    free(page);
}

static void test_hour(void **state)
{
    (void)state;
    /* At 05:00:00 the hour figure is the 60 minute totals of hour 4, which
     * cover 03:59:01 .. 04:59:00. */
    char *page = run_log(&r, "hour-page");
    long t = 18000;
    assert_int_equal(page_value(page, "<b>Request per Hour:</b>\t"),
                     window(requests, t - 3659, t - 60));
    assert_int_equal(page_value(page, "<b>Response per Hour:</b>\t"),
                     window(responses, t - 3659, t - 60));
    free(page);
}

static void test_day_month_year(void **state)
{
    (void)state;
    /* At 2027-01-01 00:00:00 the day figure is the 24 hour totals as they
     * stand: everything served from the start up to 23:59:00. */
    char *page = run_log(&r, "day-page");
    /* ntptime prints the hour space-padded, and the page copies it as printed. */
    assert_non_null(strstr(page, "<b>Date:</b>\tJan  1 2027\n\t\t<b>Time:</b>\t 0:00:00\n"));
    long t = 86400;
    assert_int_equal(page_value(page, "<b>Request per Day:</b>\t"), window(requests, 0, t - 60));
    assert_int_equal(page_value(page, "<b>Response per Day:</b>\t"), window(responses, 0, t - 60));
    /* The hour figure at midnight is hour 23 of the day before. */
    assert_int_equal(page_value(page, "<b>Request per Hour:</b>\t"),
                     window(requests, t - 3659, t - 60));
    free(page);
}

static void test_hour_sum_wraps_midnight(void **state)
{
    (void)state;
    /* At 00:10:00 the rolling hour sum covers minute slots 23:10 .. 00:09,
     * that is 23:09:01 .. 00:09:00 (E4.2-3's rule), as a float with 2 decimals. */
    char *page = run_log(&r, "wrap-page");
    long t = 87000;
    const char *at = strstr(page, "<b>Request per Hour:</b>\t");
    assert_non_null(at);
    at = strchr(at + 25, '\t');
    assert_non_null(at);
    double avg = strtod(at + 1, NULL);
    double want = (double)window(requests, t - 3659, t - 60);
    assert_true(avg > want - 0.5 && avg < want + 0.5);
    free(page);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_every_second_read),
        cmocka_unit_test(test_minute),
        cmocka_unit_test(test_hour),
        cmocka_unit_test(test_day_month_year),
        cmocka_unit_test(test_hour_sum_wraps_midnight),
    };
    return cmocka_run_group_tests(tests, run_once, cleanup);
}
