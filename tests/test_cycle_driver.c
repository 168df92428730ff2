/* Pulse-triggered cycle driver (Part 3.1): polling, arming and set-up. The
 * order of the cycle's steps and the two readings of Sync_En are covered in
 * test_cycle_steps.c. */
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "daemon/startup.h"
#include "platform/platform.h"
#include "test_support.h"

static int cycle_board(void **state)
{
    board_setup(state);
    CreateRAMDisk();
    vplat_gpio_provide(19, 0, 0);
    first_f = 1;
    Sync_En = 0;
    vplat_cmd_clear();
    return 0;
}

/* The poll loop of ThreadSrvINT for a stretch of virtual time; returns the cycles run. */
static int poll_for(int64_t microseconds)
{
    int cycles = 0;
    int64_t end = vplat_now_us() + microseconds;
    while (vplat_now_us() < end) {
        cycles += cycle_poll();
        plat_usleep(500);
    }
    return cycles;
}

static void test_long_pulse_one_cycle(void **state)
{
    (void)state;
    /* E3.1-1: a pulse that stays high for 900 ms produces one cycle per pulse. */
    vplat_set_now_us((int64_t)T_EXAMPLE * 1000000 + 950000); /* end of a second: line low */
    vplat_gpio_pulse(19, 900000);
    assert_int_equal(poll_for(3000000), 3);
    /* Many polls saw the line high, yet only one cycle ran per high phase. */
    assert_true(vplat_gpio_reads(19) > 3000);
}

static void test_line_high_at_start(void **state)
{
    (void)state;
    /* E3.1-2: first_f starts at 1, so a line already high starts a cycle at the first poll. */
    assert_int_equal(first_f, 1);
    vplat_gpio_set_input(19, 1);
    assert_int_equal(cycle_poll(), 1);
    assert_int_equal(first_f, 0);
    assert_int_equal(cycle_poll(), 0); /* still high: no second cycle */
}

static void test_low_then_high_keeps_first_f(void **state)
{
    (void)state;
    /* E3.1-5: a line that reads 0 once and 1 on the immediate second read
     * leaves first_f unchanged in that poll. */
    first_f = 0;
    static const int low_then_high[] = {0, 1};
    vplat_gpio_queue_reads(19, low_then_high, 2);
    assert_int_equal(cycle_poll(), 0);
    assert_int_equal(first_f, 0);
    /* Two low reads arm the cycle. */
    static const int low_low[] = {0, 0};
    vplat_gpio_queue_reads(19, low_low, 2);
    assert_int_equal(cycle_poll(), 0);
    assert_int_equal(first_f, 1);
}

static void test_unreadable_line_never_cycles(void **state)
{
    (void)state;
    /* Part 3.1 failure handling: a line that cannot be read reads 0; no cycle runs. */
    vplat_reset(T_EXAMPLE);
    vplat_board_tree();
    assert_int_equal(poll_for(2000000), 0);
    assert_int_equal(vplat_cmd_count(), 0);
}

static void test_setup_line19_and_dac_lines_ready(void **state)
{
    (void)state;
    atomic_store(&dac_lines_ready, 1);
    vplat_reset(T_EXAMPLE);
    vplat_board_tree();
    int64_t before = vplat_now_us();
    cycle_setup();
    assert_true(vplat_gpio_exported(19));
    assert_string_equal(vplat_gpio_direction(19), "in");
    assert_string_equal(vplat_gpio_edge(19), "rising");
    /* The supervision set-up had configured the DAC lines: no wait. */
    assert_int_equal(vplat_now_us(), before);
    assert_false(vplat_gpio_exported(96));
}

static void test_setup_waits_then_configures_dac_lines(void **state)
{
    (void)state;
    /* Part 3.1 "Left to the implementer": without the supervision set-up the
     * cycle thread waits, then configures lines 96, 106 and 118 itself. */
    atomic_store(&dac_lines_ready, 0);
    vplat_reset(T_EXAMPLE);
    vplat_board_tree();
    int64_t before = vplat_now_us();
    cycle_setup();
    assert_true(vplat_now_us() - before >= 10000000);
    assert_string_equal(vplat_gpio_direction(96), "out");
    assert_string_equal(vplat_gpio_direction(106), "out");
    assert_string_equal(vplat_gpio_direction(118), "out");
    assert_int_equal(vplat_gpio_level(106), 1);
    assert_int_equal(vplat_gpio_level(96), 0);
    atomic_store(&dac_lines_ready, 1);
}

static void test_edge_failure_is_reported_and_ignored(void **state)
{
    (void)state;
    /* Part 3.1 failure handling: the edge cannot be set when line 19 cannot
     * be exported; the thread goes on (the message is tested in test_gpio_work.c). */
    atomic_store(&dac_lines_ready, 1);
    vplat_reset(T_EXAMPLE);
    vplat_board_tree();
    vplat_gpio_provide(19, 0, 0); /* exported elsewhere: the export fails, the rest works */
    cycle_setup();
    assert_string_equal(vplat_gpio_edge(19), "rising");
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_long_pulse_one_cycle, cycle_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_line_high_at_start, cycle_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_low_then_high_keeps_first_f, cycle_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_unreadable_line_never_cycles, cycle_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_setup_line19_and_dac_lines_ready, cycle_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_setup_waits_then_configures_dac_lines, cycle_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_edge_failure_is_reported_and_ignored, cycle_board,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
