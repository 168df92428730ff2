/* Client-activity indicator (Part 3.5): lines 70 and 71. */
#include <string.h>

#include "cycle/ThreadINT.h"
#include "test_support.h"

#define REG26 "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define OFF70 "echo 0 > /sys/class/gpio/gpio70/value"
#define OFF71 "echo 0 > /sys/class/gpio/gpio71/value"
#define ON71 "echo 1 > /sys/class/gpio/gpio71/value"

static int client_board(void **state)
{
    board_setup(state);
    /* Lit, as the supervision thread's indicator test leaves them. */
    vplat_gpio_provide(70, 1, 1);
    vplat_gpio_provide(71, 1, 1);
    return 0;
}

/* Service then ReadNtpCli, as the cycle runs them. */
static void run_indicator(void)
{
    assert_int_equal(Service(), 0);
    ReadNtpCli();
}

static void assert_modes(void)
{
    for (size_t i = 0; i < vplat_cmd_count(); i++)
        assert_string_equal(vplat_cmd_mode(i), strcmp(vplat_cmd(i), REG26) == 0 ? "r" : "w");
}

static size_t highs_of(int line)
{
    size_t count = 0;
    for (size_t i = 0; i < vplat_level_count(); i++)
        if (vplat_level_at(i)->line == line && vplat_level_at(i)->level == 1)
            count++;
    return count;
}

static void assert_no_flash(void)
{
    size_t end = assert_commands(0, OFF70, OFF71, REG26, OFF70, OFF71, NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_modes();
    assert_int_equal(highs_of(71), 0);
    assert_int_equal(highs_of(70), 0);
    assert_int_equal(vplat_gpio_level(70), 0);
    assert_int_equal(vplat_gpio_level(71), 0);
}

static void assert_flash(void)
{
    size_t end = assert_commands(0, OFF70, OFF71, REG26, OFF70, ON71, OFF70, OFF71, NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_modes();
    assert_int_equal(highs_of(71), 1);
    assert_int_equal(highs_of(70), 0);
    assert_int_equal(vplat_gpio_level(70), 0);
    assert_int_equal(vplat_gpio_level(71), 0);
}

static void test_zero_no_flash(void **state)
{
    (void)state;
    /* E3.5-1: no flash; lines 70 and 71 end low (set low four times). */
    vplat_reg_set(26, 0);
    run_indicator();
    assert_no_flash();
}

static void test_256_no_flash(void **state)
{
    (void)state;
    /* E3.5-2: low byte 0, no flash, although responses were sent. */
    vplat_reg_set(26, 256);
    run_indicator();
    assert_no_flash();
}

static void test_65535_flashes(void **state)
{
    (void)state;
    /* E3.5-3: the low byte is 255. */
    vplat_reg_set(26, 65535);
    run_indicator();
    assert_flash();
}

static void test_one_flashes_for_300us(void **state)
{
    (void)state;
    /* E3.5-4: line 71 is high for the 300 us wait and the start-up of the
     * two commands that follow the echo 1; both lines end low. */
    enum { COST = 1000 };
    vplat_set_command_cost_us(COST);
    vplat_reg_set(26, 1);
    run_indicator();
    assert_flash();
    int64_t rise = -1, fall = -1;
    for (size_t i = 0; i < vplat_level_count(); i++) {
        const struct vplat_level *l = vplat_level_at(i);
        if (l->line != 71)
            continue;
        if (l->level == 1)
            rise = l->t_us;
        else if (rise >= 0 && fall < 0)
            fall = l->t_us;
        assert_int_equal(l->by_shell, 1);
    }
    assert_true(rise >= 0 && fall >= 0);
    assert_int_equal(fall - rise, 300 + 2 * COST);
    /* Without command cost, exactly the wait. */
    vplat_reset(T_EXAMPLE);
    vplat_gpio_provide(70, 1, 0);
    vplat_gpio_provide(71, 1, 0);
    vplat_reg_set(26, 1);
    ReadNtpCli();
    assert_int_equal(vplat_level_count(), 4); /* 70 low, 71 high, 70 low, 71 low */
    assert_int_equal(vplat_level_at(1)->line, 71);
    assert_int_equal(vplat_level_at(1)->level, 1);
    assert_int_equal(vplat_level_at(3)->line, 71);
    assert_int_equal(vplat_level_at(3)->level, 0);
    assert_int_equal(vplat_level_at(3)->t_us - vplat_level_at(1)->t_us, 300);
}

static void test_only_first_byte_parsed(void **state)
{
    (void)state;
    /* strtol from column 6 stops at the blank: "00 01" is 0, "01 00" is 1. */
    vplat_on_command(REG26, spi_output("AA AA 00 01\n"));
    run_indicator();
    assert_no_flash();
    vplat_cmd_clear();
    vplat_on_command(REG26, spi_output("AA AA 01 00\n"));
    run_indicator();
    assert_flash();
}

static void test_read_failures_keep_dark(void **state)
{
    (void)state;
    /* Part 3.5 "Left to the implementer": a read that cannot start, or
     * prints fewer than five lines, counts as 0; garbage parses as 0. */
    vplat_reg_set(26, 1);
    vplat_fail_command(REG26);
    run_indicator();
    assert_no_flash();
    vplat_cmd_clear();
    vplat_on_command(REG26, "1\n2\n3\n4\n");
    run_indicator();
    assert_no_flash();
    vplat_cmd_clear();
    vplat_on_command(REG26, spi_output("AA AA"));
    run_indicator();
    assert_no_flash();
    vplat_cmd_clear();
    vplat_on_command(REG26, spi_output("AA AA zz 01\n"));
    run_indicator();
    assert_no_flash();
}

static void test_echo_failures_ignored(void **state)
{
    (void)state;
    /* Part 3.5 failure handling: an echo that cannot start leaves its line
     * as it was; the remaining commands still run. */
    vplat_reg_set(26, 2);
    vplat_fail_command(ON71);
    run_indicator();
    size_t end = assert_commands(0, OFF70, OFF71, REG26, OFF70, ON71, OFF70, OFF71, NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_int_equal(highs_of(71), 0);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_zero_no_flash, client_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_256_no_flash, client_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_65535_flashes, client_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_one_flashes_for_300us, client_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_only_first_byte_parsed, client_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_read_failures_keep_dark, client_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_echo_failures_ignored, client_board, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
