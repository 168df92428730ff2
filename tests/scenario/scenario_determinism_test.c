/* Scenario: runs are deterministic for a given scenario and seed. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scenario_support.h"

const char SCENARIO[] = "start 2026-11-16T13:27:00\n"
                        "duration 150\n"
                        "seed 21\n"
                        "osc gain 0.05 natural 33100 noise 5 offset -1800\n"
                        "load 60 55\n"
                        "rmc A\n"
                        "peer system\n"
                        "file /usr/bin/Zarvent/enable.cfg 1\n"
                        "at 70 gpio 87 0\n"
                        "at 80 event 2\n"
                        "at 90 peer pps\n";

static void test_same_logs_twice(void **state)
{
    (void)state;
    struct run second;
    run_scenario(&second, SCENARIO);
    static const char *const logs[] = {"commands.log", "levels.log", "dac.log", "handover.log",
                                       "counts.log"};
    for (size_t i = 0; i < sizeof logs / sizeof logs[0]; i++) {
        char *a = run_log(&r, logs[i]);
        char *b = run_log(&second, logs[i]);
        assert_true(strlen(a) > 0);
        assert_string_equal(a, b);
        free(a);
        free(b);
    }
    char *page_a = run_board_file(&r, "/ramcache/zarvent/ntp_data.txt");
    char *page_b = run_board_file(&second, "/ramcache/zarvent/ntp_data.txt");
    assert_non_null(page_a);
    assert_non_null(page_b);
    assert_string_equal(page_a, page_b);
    free(page_a);
    free(page_b);
    run_cleanup(&second);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_same_logs_twice),
    };
    return cmocka_run_group_tests(tests, scenario_group_setup, scenario_group_teardown);
}
