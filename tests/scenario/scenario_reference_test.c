/* Scenario: receiver lost and regained; reference system peer -> PPS peer ->
 * none -> system peer, with the errorlog, indicators, alarm and status page. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scenario_support.h"

const char SCENARIO[] = "start 2026-11-16T13:27:00\n"
                        "duration 400\n"
                        "seed 11\n"
                        "osc gain 0.1 natural 33000 noise 2 offset 500\n"
                        "rmc A\n"
                        "peer system\n"
                        "at 100 peer pps\n"
                        "at 115 snapshot pps-page\n"
                        "at 130 rmc V\n"
                        "at 140 rmc A\n"
                        "at 160 peer none\n"
                        "at 175 snapshot none-page\n"
                        "at 220 peer system\n"
                        "at 240 snapshot back-page\n";

static void test_errorlog(void **state)
{
    (void)state;
    char *log = run_board_file(&r, "/ramcache/zarvent/errorlog.log");
    assert_non_null(log);
    /* One line per change, in order; the first pass always logs (E5.1-1). */
    assert_int_equal(count_lines(log, "Reference time: "), 4);
    const char *l1 = strstr(log, "16.11 13:27:");
    assert_non_null(l1);
    assert_int_equal(strncmp(l1 + 15, "Reference time: GPS+GLONASS\n", 28), 0);
    const char *l2 = strstr(l1, "Reference time: GPS+GLONASS 1PPS\n");
    const char *l3 = l2 ? strstr(l2, "Reference time: NULL\n") : NULL;
    const char *l4 = l3 ? strstr(l3, "Reference time: GPS+GLONASS\n") : NULL;
    assert_non_null(l2);
    assert_non_null(l3);
    assert_non_null(l4);
    free(log);
}

static void test_receiver_lost_and_regained(void **state)
{
    (void)state;
    /* rmc V at +130 clears Sync_En: no hand-over until 60 valid cycles after +140. */
    char *log = run_log(&r, "handover.log");
    int before = 0, gap = 0, after = 0;
    for (const char *p = log; p && *p; p = strchr(p, '\n') ? strchr(p, '\n') + 1 : NULL) {
        long t = strtol(p, NULL, 10) - 1794835620;
        if (t <= 130)
            before++;
        else if (t < 200)
            gap++;
        else
            after++;
    }
    assert_true(before >= 65);
    assert_int_equal(gap, 0);
    assert_true(after >= 190);
    assert_int_equal(count_lines(log, "rejected"), 0);
    free(log);
    /* Register 1 bit 0 is cleared by the invalid cycles. */
    char *regs = run_log(&r, "registers.log");
    assert_true(count_lines(regs, "./spiWrite -m 1 -l 3 -d 1 1 ") > 0);
    free(regs);
}

static void test_pages(void **state)
{
    (void)state;
    char *pps = run_log(&r, "pps-page");
    assert_non_null(strstr(pps, "<b>Reference time:</b>    GPS+GLONASS 1PPS\n"));
    assert_non_null(strstr(pps, "<b>Uptime from:</b> "));
    free(pps);
    char *none = run_log(&r, "none-page");
    assert_non_null(strstr(none, "<b>Reference time:</b>    NULL\n"));
    assert_non_null(
        strstr(none, "<b>Alarm at:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:29:"));
    free(none);
    char *back = run_log(&r, "back-page");
    assert_non_null(strstr(back, "<b>Reference time:</b>    GPS+GLONASS\n"));
    assert_non_null(
        strstr(back, "<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:30:"));
    free(back);
}

static void test_indicator_levels(void **state)
{
    (void)state;
    /* Lines 72/73 by state: system 1/1, PPS 0/1, none 1/0; alarm lines 76/77. */
    char *levels = run_log(&r, "levels.log");
    assert_true(count_lines(levels, " 72 0 shell") > 0);
    assert_true(count_lines(levels, " 73 0 shell") > 0);
    assert_true(count_lines(levels, " 76 1 shell") > 0);
    assert_true(count_lines(levels, " 77 1 shell") > 0);
    free(levels);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_errorlog),
        cmocka_unit_test(test_receiver_lost_and_regained),
        cmocka_unit_test(test_pages),
        cmocka_unit_test(test_indicator_levels),
    };
    return cmocka_run_group_tests(tests, scenario_group_setup, scenario_group_teardown);
}
