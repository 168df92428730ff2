/* Scenario: cold start to steering. 60 valid cycles set Sync_En, the time
 * hand-over is accepted by the FPGA model every second afterwards, and the
 * DAC codes steer the oscillator model so that the offset converges. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scenario_support.h"

const char SCENARIO[] = "start 2026-11-16T13:27:00\n"
                        "duration 900\n"
                        "seed 7\n"
                        "osc gain 0.1 natural 33000 noise 2 offset 2500\n"
                        "rmc A\n"
                        "peer system\n"
                        "at 890 snapshot page\n";

static void test_handover_every_second_after_sync(void **state)
{
    (void)state;
    char *log = run_log(&r, "handover.log");
    /* The first cycle runs at 13:27:00; Sync_En is set by the 60th (13:27:59),
     * and Send_Time runs from the next cycle on (Part 3.6). */
    long first = strtol(log, NULL, 10);
    assert_int_equal(first, 1794835620 + 60);
    assert_int_equal(count_lines(log, "rejected"), 0);
    assert_int_equal(run_summary(&r, "handovers_rejected"), 0);
    long accepted = run_summary(&r, "handovers_accepted");
    assert_in_range(accepted, 900 - 61, 900 - 59);
    /* One accepted hand-over per second, no second skipped. */
    long prev = first - 1;
    for (const char *p = log; *p; p = strchr(p, '\n') + 1) {
        long t = strtol(p, NULL, 10);
        assert_int_equal(t, prev + 1);
        prev = t;
        if (strchr(p, '\n') == NULL)
            break;
    }
    free(log);
}

static void test_dac_words_and_convergence(void **state)
{
    (void)state;
    char *dac = run_log(&r, "dac.log");
    assert_int_equal(count_lines(dac, "malformed"), 0);
    /* At set-up: command 4 with 2048, command 3 with the centre (33000). */
    assert_non_null(strstr(dac, "408000 cmd=4 value=2048\n"));
    assert_non_null(strstr(dac, "cmd=3 value=33000\n"));
    /* Every steered second sends command 4 then command 3. */
    assert_in_range(count_lines(dac, "cmd=4 value=2048"), 840, 842);
    assert_in_range(count_lines(dac, "cmd=3 "), 841, 843);
    free(dac);
    /* The model's offset started at 2500 ns and has settled near zero. */
    char *summary = run_log(&r, "summary.log");
    double offset = strtod(strstr(summary, "offset_ns ") + 10, NULL);
    assert_true(offset > -20.0 && offset < 20.0);
    free(summary);
}

static void test_chart_files(void **state)
{
    (void)state;
    /* Steering starts in the cycle of 13:27:59: the first chart file is that minute's. */
    char *first = run_board_file(&r, "/ramcache/zarvent/ptp_data_2026~11~16_13-27");
    assert_non_null(first);
    assert_int_equal(strncmp(first, "[new Date(\"11/16/2026 13:27:59\"), ", 34), 0);
    free(first);
    char *minute = run_board_file(&r, "/ramcache/zarvent/ptp_data_2026~11~16_13-40");
    assert_non_null(minute);
    assert_int_equal(count_lines(minute, "[new Date(\"11/16/2026 13:40:"), 60);
    /* The offsets of the last minute are small: the loop has settled. */
    int lines = 0;
    for (const char *p = strstr(minute, "), "); p; p = strstr(p + 1, "), ")) {
        long v = strtol(p + 3, NULL, 10);
        assert_true(v > -40 && v < 40);
        lines++;
    }
    assert_int_equal(lines, 60);
    free(minute);
}

static void test_status_page(void **state)
{
    (void)state;
    char *page = run_log(&r, "page");
    assert_int_equal(
        strncmp(page, "<b>UTC</b>\t\t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:41:50\n", 60),
        0);
    assert_non_null(strstr(page, "<b>Reference time:</b>    GPS+GLONASS\n"));
    assert_non_null(strstr(
        page, "<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:27:00\n"));
    assert_non_null(strstr(page, "\n<b>Antenna:</b> Ok\n"));
    free(page);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_handover_every_second_after_sync),
        cmocka_unit_test(test_dac_words_and_convergence),
        cmocka_unit_test(test_chart_files),
        cmocka_unit_test(test_status_page),
    };
    return cmocka_run_group_tests(tests, scenario_group_setup, scenario_group_teardown);
}
