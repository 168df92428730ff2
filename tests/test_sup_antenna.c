/* Antenna monitor (Part 5.3): ControlAntenna. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "daemon/shared.h"
#include "statistics/Statistic.h"
#include "supervision/ThreadLED.h"
#include "test_support.h"

#define SEC 1000000LL
#define ON74 "echo 1 > /sys/class/gpio/gpio74/value"
#define OFF74 "echo 0 > /sys/class/gpio/gpio74/value"
#define ON75 "echo 1 > /sys/class/gpio/gpio75/value"
#define OFF75 "echo 0 > /sys/class/gpio/gpio75/value"

static int setup(void **state)
{
    board_setup(state); /* line 85: exported output at 1, as the system provides it */
    vplat_gpio_provide(86, 0, 1);
    vplat_gpio_provide(87, 0, 1);
    vplat_gpio_provide(74, 1, 0);
    vplat_gpio_provide(75, 1, 0);
    memset(Command_Out, 0, sizeof Command_Out);
    over = 0;
    event = 0;
    now_en = 0;
    atomic_store(&Alarm, 0);
    return 0;
}

static void at_second(int64_t s)
{
    vplat_set_now_us(s * SEC);
}

/* Number of writes to line 85 in the level log, and the last one. */
static size_t writes_85(int *last)
{
    size_t k = 0;
    for (size_t i = 0; i < vplat_level_count(); i++) {
        const struct vplat_level *l = vplat_level_at(i);
        if (l->line == 85) {
            k++;
            if (last)
                *last = l->level;
        }
    }
    return k;
}

/* The antenna line of the status page (Part 4.3) written from the present state. */
static void assert_page_antenna(const char *text)
{
    FileWrite();
    char *page = vplat_read_file("/ramcache/zarvent/ntp_data.txt");
    assert_non_null(page);
    char want[64];
    snprintf(want, sizeof want, "\n<b>Antenna:</b> %s\n", text);
    if (strstr(page, want) == NULL)
        fail_msg("status page lacks \"%s\":\n%s", want, page);
    free(page);
}

static void test_all_lines_high_ok(void **state)
{
    (void)state;
    /* E5.3-1: lines 86, 87, 85 at 1: code 7 ("Ok"), line 74 at 0 and line 75
     * at 1, line 85 untouched. */
    assert_int_equal(ControlAntenna(), 0);
    assert_int_equal(command_out_byte(CO_ANTENNA), 7);
    assert_int_equal(assert_commands(0, OFF74, ON75, NULL), vplat_cmd_count());
    assert_string_equal(vplat_cmd_mode(0), "w");
    assert_string_equal(vplat_cmd_mode(1), "w");
    assert_int_equal(vplat_gpio_level(74), 0);
    assert_int_equal(vplat_gpio_level(75), 1);
    assert_int_equal(writes_85(NULL), 0);
    assert_int_equal(vplat_gpio_level(85), 1);
    assert_int_equal(over, 0);
    assert_page_antenna("Ok");
}

static void test_line_86_low_off(void **state)
{
    (void)state;
    /* E5.3-2: line 86 at 0 with 87 and 85 at 1: code 6 ("Off"), line 74 at 1,
     * line 75 at 0, no hold-off. */
    vplat_gpio_set_input(86, 0);
    ControlAntenna();
    assert_int_equal(command_out_byte(CO_ANTENNA), 6);
    assert_int_equal(assert_commands(0, ON74, OFF75, NULL), vplat_cmd_count());
    assert_int_equal(vplat_gpio_level(74), 1);
    assert_int_equal(vplat_gpio_level(75), 0);
    assert_int_equal(over, 0);
    assert_int_equal(event, 0);
    assert_int_equal(writes_85(NULL), 0);
    assert_page_antenna("Off");
}

static void test_short_code_5_then_blanks(void **state)
{
    (void)state;
    /* E5.3-3: line 87 at 0 with 86 and 85 at 1: code 5 ("Short"); line 85 is
     * driven to 0 in the same call, so the following passes read a code
     * below 4 and the page shows six blanks while the hold-off lasts. */
    at_second(1000);
    vplat_gpio_set_input(87, 0);
    ControlAntenna();
    assert_int_equal(command_out_byte(CO_ANTENNA), 5);
    assert_page_antenna("Short");
    int last = -1;
    assert_int_equal(writes_85(&last), 1);
    assert_int_equal(last, 0);
    assert_int_equal(vplat_gpio_level(85), 0);
    assert_int_equal(over, 1);
    assert_int_equal(event, 1000);
    /* The indicators were chosen from the levels before line 85 went low. */
    assert_int_equal(vplat_gpio_level(74), 1);
    assert_int_equal(vplat_gpio_level(75), 0);

    at_second(1003);
    ControlAntenna();
    assert_int_equal(command_out_byte(CO_ANTENNA), 1);
    assert_page_antenna("      ");
    assert_int_equal(over, 1);
}

static void test_hold_off_four_seconds(void **state)
{
    (void)state;
    /* E5.3-4: a short seen at second 100 keeps line 85 at 0 in a pass at
     * second 104 (4 is not greater than 4) and releases it in the first pass
     * at second 105 or later that still sees line 87 at 0. */
    vplat_gpio_set_input(87, 0);
    at_second(100);
    ControlAntenna();
    assert_int_equal(event, 100);
    assert_int_equal(over, 1);

    at_second(104);
    ControlAntenna();
    assert_int_equal(now_en, 104);
    assert_int_equal(over, 1);
    int last = -1;
    assert_int_equal(writes_85(&last), 2); /* driven to 0 again */
    assert_int_equal(last, 0);

    at_second(105);
    ControlAntenna();
    assert_int_equal(now_en, 105);
    assert_int_equal(over, 0);
    assert_int_equal(writes_85(&last), 4); /* 0, then 1 */
    assert_int_equal(last, 1);
    assert_int_equal(vplat_gpio_level(85), 1);
    const struct vplat_level *l = vplat_level_at(vplat_level_count() - 1);
    assert_int_equal(l->line, 85);
    assert_int_equal(l->by_shell, 0); /* PinSetOutput, not a shell command */
    assert_int_equal(l->t_us, 105 * SEC);

    /* The short persists: the next pass switches it off again and starts a
     * new hold-off. */
    at_second(108);
    ControlAntenna();
    assert_int_equal(over, 1);
    assert_int_equal(event, 108);
    assert_int_equal(vplat_gpio_level(85), 0);
}

static void test_release_in_first_pass_after_105(void **state)
{
    (void)state;
    /* E5.3-4: passes at 103 and 107: the release comes at 107. */
    vplat_gpio_set_input(87, 0);
    at_second(100);
    ControlAntenna();
    at_second(103);
    ControlAntenna();
    assert_int_equal(over, 1);
    at_second(107);
    ControlAntenna();
    assert_int_equal(over, 0);
    assert_int_equal(vplat_gpio_level(85), 1);
}

static void test_clear_pass_does_not_release(void **state)
{
    (void)state;
    /* E5.3-5: a pass that finds line 87 non-zero returns before the hold-off
     * check: during a hold-off line 85 is switched on again only by a pass
     * that finds line 87 at 0. */
    vplat_gpio_set_input(87, 0);
    at_second(100);
    ControlAntenna();
    vplat_gpio_set_input(87, 1);
    at_second(106);
    ControlAntenna();
    assert_int_equal(over, 1);
    assert_int_equal(event, 100);
    assert_int_equal(now_en, 0);
    assert_int_equal(vplat_gpio_level(85), 0);
    assert_int_equal(writes_85(NULL), 1);
    assert_int_equal(command_out_byte(CO_ANTENNA), 3);
    at_second(110);
    ControlAntenna();
    assert_int_equal(vplat_gpio_level(85), 0);
    /* Only a pass that sees the short again ends the hold-off. */
    vplat_gpio_set_input(87, 0);
    at_second(111);
    ControlAntenna();
    assert_int_equal(over, 0);
    assert_int_equal(vplat_gpio_level(85), 1);
}

static void test_reads_in_order_and_again(void **state)
{
    (void)state;
    /* Part 5.3 steps 1 to 3: the code comes from the first reads, the
     * indicators from the second, the short test from a third read of 87. */
    const int first_ok_then_short[] = {1, 1, 0};
    vplat_gpio_queue_reads(87, first_ok_then_short, 3);
    at_second(200);
    ControlAntenna();
    assert_int_equal(command_out_byte(CO_ANTENNA), 7);
    assert_int_equal(assert_commands(0, OFF74, ON75, NULL), vplat_cmd_count());
    assert_int_equal(over, 1);
    assert_int_equal(event, 200);
    assert_int_equal(vplat_gpio_level(85), 0);
    assert_int_equal(vplat_gpio_reads(86), 2);
    assert_int_equal(vplat_gpio_reads(87), 3);
    assert_int_equal(vplat_gpio_reads(85), 2);

    /* Steps 1 and 2 differ: the code says "Off", the indicators "Ok". */
    const int off_then_on[] = {0, 1};
    vplat_gpio_queue_reads(86, off_then_on, 2);
    vplat_gpio_set_input(87, 1);
    vplat_gpio_provide(85, 1, 1);
    vplat_cmd_clear();
    ControlAntenna();
    assert_int_equal(command_out_byte(CO_ANTENNA), 6);
    assert_int_equal(assert_commands(0, OFF74, ON75, NULL), vplat_cmd_count());
}

static void test_clock_step_back_lengthens_hold_off(void **state)
{
    (void)state;
    /* Part 5.3 failure handling: the difference is taken on whole seconds of
     * time; a step backwards lengthens the hold-off. */
    vplat_gpio_set_input(87, 0);
    at_second(1000);
    ControlAntenna();
    at_second(900);
    ControlAntenna();
    assert_int_equal(over, 1);
    at_second(1004);
    ControlAntenna();
    assert_int_equal(over, 1);
    at_second(1005);
    ControlAntenna();
    assert_int_equal(over, 0);
}

static void test_lines_missing(void **state)
{
    (void)state;
    /* Part 5.3 failure handling: a line that cannot be read reads 0. With
     * none of the three lines present the code is 0, the indicators show a
     * fault and the pass counts as a short; the write to line 85 is lost. */
    vplat_reset(T_EXAMPLE);
    vplat_gpio_provide(74, 1, 0);
    vplat_gpio_provide(75, 1, 0);
    assert_int_equal(ControlAntenna(), 0);
    assert_int_equal(command_out_byte(CO_ANTENNA), 0);
    assert_int_equal(assert_commands(0, ON74, OFF75, NULL), vplat_cmd_count());
    assert_int_equal(over, 1);
    assert_int_equal(writes_85(NULL), 0);
}

static void test_indicator_commands_cannot_start(void **state)
{
    (void)state;
    /* The indicator commands cannot be started: the call still completes
     * and the hold-off goes on. */
    vplat_fail_command(ON74);
    vplat_fail_command(OFF75);
    vplat_gpio_set_input(87, 0);
    at_second(300);
    assert_int_equal(ControlAntenna(), 0);
    assert_int_equal(assert_commands(0, ON74, OFF75, NULL), vplat_cmd_count());
    assert_int_equal(over, 1);
    assert_int_equal(vplat_gpio_level(85), 0);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_all_lines_high_ok, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_line_86_low_off, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_short_code_5_then_blanks, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_hold_off_four_seconds, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_release_in_first_pass_after_105, setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_clear_pass_does_not_release, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_reads_in_order_and_again, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_clock_step_back_lengthens_hold_off, setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_lines_missing, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_indicator_commands_cannot_start, setup,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
