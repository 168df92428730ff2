/* Scenario: tool faults. A register tool that prints garbage or too few
 * lines, ntpq absent, ntptime absent: the daemon keeps running, writes
 * nothing that did not come from a register, and recovers. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scenario_support.h"

const char SCENARIO[] = "start 2026-11-16T13:27:00\n"
                        "duration 400\n"
                        "rmc A\n"
                        "peer system\n"
                        "at 70 regtool garbage\n"
                        "at 90 regtool short\n"
                        "at 110 regtool ok\n"
                        "at 150 tool ntpq absent\n"
                        "at 170 snapshot no-ntpq\n"
                        "at 200 tool ntpq present\n"
                        "at 250 tool ntptime absent\n"
                        "at 260 snapshot no-ntptime\n"
                        "at 300 tool ntptime present\n"
                        "at 395 snapshot last\n";

static void test_short_output_writes_nothing_derived(void **state)
{
    (void)state;
    /* While the tool prints too few lines (90..110 s), no read succeeds, so
     * no register-1 or register-2 write derived from a read is made. */
    char *regs = run_log(&r, "registers.log");
    for (const char *p = regs; p && *p; p = strchr(p, '\n') ? strchr(p, '\n') + 1 : NULL) {
        long t = strtol(p, NULL, 10) - 1794835620;
        if (t > 91 && t < 109) {
            char line[256];
            size_t len = strcspn(p, "\n");
            snprintf(line, sizeof line, "%.*s", (int)len, p);
            assert_null(strstr(line, "-l 3 -d 1 1 "));
            assert_null(strstr(line, "-l 3 -d 1 2 "));
        }
    }
    free(regs);
}

static void test_keeps_running_and_recovers(void **state)
{
    (void)state;
    char *no_ntpq = run_log(&r, "no-ntpq");
    /* ntpq missing: no reference ("NULL"), the receiver counts as invalid. */
    assert_non_null(strstr(no_ntpq, "<b>Reference time:</b>    NULL\n"));
    assert_non_null(strstr(no_ntpq, "<b>Mean Offset [ns]:</b>\t0\n"));
    free(no_ntpq);
    char *no_ntptime = run_log(&r, "no-ntptime");
    /* ntptime missing: the page is still written; the time slots keep their last value. */
    assert_non_null(
        strstr(no_ntptime, "<b>UTC</b>\t\t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:31:"));
    free(no_ntptime);
    char *last = run_log(&r, "last");
    assert_non_null(strstr(last, "\t\t<b>Time:</b>\t13:33:35\n"));
    assert_non_null(strstr(last, "<b>Reference time:</b>    GPS+GLONASS\n"));
    free(last);
    char *errorlog = run_board_file(&r, "/ramcache/zarvent/errorlog.log");
    assert_non_null(errorlog);
    assert_int_equal(count_lines(errorlog, "Reference time: NULL"), 1);
    free(errorlog);
    /* Hand-overs resume after the faults and none is ever rejected. */
    assert_int_equal(run_summary(&r, "handovers_rejected"), 0);
    char *handovers = run_log(&r, "handover.log");
    assert_non_null(strstr(handovers, "1794836010 "));
    free(handovers);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_short_output_writes_nothing_derived),
        cmocka_unit_test(test_keeps_running_and_recovers),
    };
    return cmocka_run_group_tests(tests, scenario_group_setup, scenario_group_teardown);
}
