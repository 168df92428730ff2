/* Scenario: statistics flag on: /ftpdir/stat.txt every second cycle. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scenario_support.h"

const char SCENARIO[] = "start 2026-11-16T13:27:00\n"
                        "duration 61\n"
                        "rmc A\n"
                        "file /usr/bin/Zarvent/enable.cfg 1\n"
                        "at 41 file /usr/bin/Zarvent/enable.cfg 0\n";

static void test_stat_file_every_second_cycle(void **state)
{
    (void)state;
    char *cmds = run_log(&r, "commands.log");
    /* Register 48 and register 1 on every cycle with the flag on (41 cycles),
     * the exchange and the lock removal on every second one (20). */
    assert_int_equal(count_lines(cmds, "./spiWrite -m 0 -l 3 -d 1 48 0"), 41);
    assert_int_equal(count_lines(cmds, " rm /ftpdir/lock"), 20);
    free(cmds);
    char *stat = run_board_file(&r, "/ftpdir/stat.txt");
    assert_non_null(stat);
    assert_int_equal(count_lines(stat, ""), 134);
    assert_int_equal(strncmp(stat, " time2*\t     t1\n", 16), 0);
    free(stat);
    assert_false(run_board_exists(&r, "/ftpdir/lock"));
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_stat_file_every_second_cycle),
    };
    return cmocka_run_group_tests(tests, scenario_group_setup, scenario_group_teardown);
}
