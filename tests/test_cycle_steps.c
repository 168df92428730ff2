/* The cycle's steps in the order of Part 3.1 and the two readings of
 * Sync_En (steps 6 and 10), through cycle_run() on the virtual board. */
#include <string.h>

#include "cycle/ThreadINT.h"
#include "cycle/steering.h"
#include "daemon/shared.h"
#include "test_support.h"

#define REG28 "./spiWrite -m 0 -l 3 -d 1 28 0 0"
#define REG26 "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define REG14 "./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0"
#define CLOCKVAR "ntpq -c clockvar"
#define OFF70 "echo 0 > /sys/class/gpio/gpio70/value"
#define OPEN1 "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 1\n"
#define SECONDS "/usr/bin/Zarvent/spiWrite -m 1 -l 8 -d 6 3 248 4 251 106 0 0\n"
#define CLOSE1 "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 1\n"
#define SYNC_SET "./spiWrite -m 1 -l 3 -d 1 1 31 0"
#define SYNC_CLEAR "./spiWrite -m 1 -l 3 -d 1 1 30 0"
#define CHART "/ramcache/zarvent/ptp_data_2026~11~16_13-27"

static int cycle_board(void **state)
{
    board_setup(state);
    for (int line = 70; line <= 71; line++)
        vplat_gpio_provide(line, 1, 0);
    vplat_gpio_provide(96, 1, 0);
    vplat_gpio_provide(118, 1, 0);
    vplat_gpio_provide(106, 1, 1);
    vplat_reg_set(2, 0x1E);
    vplat_reg_set(14, 100); /* offset -1000 ns */
    vplat_reg_set(26, 0);
    vplat_reg_set(28, 0);
    memset(Command_Out, 0, sizeof Command_Out);
    atomic_store(&Leap_Time, 37);
    Trans_count = 1;
    DAC_VOLTAGE = 32768;
    Save_Sync = 32768;
    Sync_Offset = 0;
    Summ_prev = 0;
    Intg = 0;
    Max = 0;
    Min = 0;
    n = 0;
    Jitter = 0;
    flags = 0;
    over_1 = 0;
    over_2 = 0;
    event1 = 0;
    event2 = 0;
    sync_count = 0;
    Sync_En = 0;
    steering_chart_forget();
    timeinfo_refresh(T_EXAMPLE);
    return 0;
}

/* 1 when a command line starting with prefix ran. */
static int ran_prefix(const char *prefix)
{
    for (size_t i = 0; i < vplat_cmd_count(); i++)
        if (strncmp(vplat_cmd(i), prefix, strlen(prefix)) == 0)
            return 1;
    return 0;
}

static void test_enabled_by_step8_steers_without_sending(void **state)
{
    (void)state;
    /* E3.1-3: Sync_En 0 at step 6, set by step 8: no Send_Time, but the
     * DAC is steered in step 10 of the same cycle. */
    Sync_En = 0;
    sync_count = 59;
    vplat_set_rmc_status('A');
    cycle_run();
    assert_int_equal(Sync_En, 1);
    assert_false(ran_prefix("/usr/bin/Zarvent/spiWrite"));
    assert_true(vplat_cmd_find("ntptime", 0) >= 0); /* ControlTime runs regardless */
    /* Step 10: command 4 with 2048, then command 3 with the new code:
     * -1000 ns from a fresh state gives 32695. */
    assert_int_equal(vplat_dac_count(), 2);
    assert_int_equal(vplat_dac_at(0)->word, 0x408000);
    assert_int_equal(vplat_dac_at(1)->word, 0x300000 + 32695 * 16);
    assert_int_equal(Save_Sync, 32695);
    /* Register 1 bit 0: set by Nav_Parse (mode "r"), then by the steering (mode "w"). */
    long set = vplat_cmd_find(SYNC_SET, 0);
    assert_true(set >= 0);
    assert_string_equal(vplat_cmd_mode((size_t)set), "r");
    long steer = vplat_cmd_find(SYNC_SET, (size_t)set + 1);
    assert_true(steer > set);
    assert_string_equal(vplat_cmd_mode((size_t)steer), "w");
    assert_file(CHART, "[new Date(\"11/16/2026 13:27:46\"), -1000],\n");
}

static void test_cleared_by_step8_sends_without_steering(void **state)
{
    (void)state;
    /* E3.1-4: Sync_En 1 at step 6, cleared by step 8: the time is sent, the
     * DAC is not steered. */
    Sync_En = 1;
    sync_count = 12;
    vplat_set_rmc_status('V');
    cycle_run();
    assert_int_equal(Sync_En, 0);
    assert_int_equal(sync_count, 0);
    long open = vplat_cmd_find(OPEN1, 0);
    assert_true(open >= 0);
    assert_commands((size_t)open, OPEN1, SECONDS, "ntptime", CLOSE1, NULL);
    assert_int_equal(Trans_count, 2);
    assert_int_equal(vplat_dac_count(), 0);
    assert_false(vplat_exists(CHART));
    long cleared = vplat_cmd_find(SYNC_CLEAR, 0);
    assert_true(cleared > open);
    assert_int_equal(vplat_cmd_occurrences(SYNC_SET), 0);
    assert_int_equal(Save_Sync, 32768);
    assert_int_equal(Intg, 0);
}

static void test_neither_while_invalid(void **state)
{
    (void)state;
    /* Sync_En 0 and staying 0: neither hand-over nor steering. */
    vplat_set_rmc_status('V');
    cycle_run();
    assert_false(ran_prefix("/usr/bin/Zarvent/spiWrite"));
    assert_int_equal(vplat_dac_count(), 0);
    assert_int_equal(Sync_En, 0);
}

static void test_steps_in_order(void **state)
{
    (void)state;
    /* Part 3.1: relay reset, indicator, time, hand-over, offset, reference
     * check, then the DAC words, strictly in this order. */
    vplat_set_command_cost_us(100);
    Sync_En = 1;
    vplat_set_rmc_status('A');
    cycle_run();
    long relay = vplat_cmd_find(REG28, 0);
    long service = vplat_cmd_find(OFF70, 0);
    long client = vplat_cmd_find(REG26, (size_t)(service < 0 ? 0 : service));
    long clock = vplat_cmd_find("ntptime", 0);
    long open = vplat_cmd_find(OPEN1, 0);
    long offset = vplat_cmd_find(REG14, 0);
    long clockvar = vplat_cmd_find(CLOCKVAR, 0);
    long steer = vplat_cmd_find(SYNC_SET, 0);
    assert_true(relay >= 0);
    assert_true(relay < service);
    assert_true(service < client);
    assert_true(client < clock);
    assert_true(clock < open);
    assert_true(open < offset);
    assert_true(offset < clockvar);
    assert_true(clockvar < steer);
    assert_string_equal(vplat_cmd_mode((size_t)steer), "w");
    assert_int_equal(vplat_dac_count(), 2);
    assert_true(vplat_dac_at(0)->t_us >= vplat_cmd_time_us((size_t)clockvar));
    assert_true(vplat_dac_at(1)->t_us >= vplat_cmd_time_us((size_t)steer));
    /* The offset that ControlOffset left is the one steered. */
    assert_int_equal(Sync_Offset, -1000);
    char text[10];
    command_out_text(CO_OFFSET, text, sizeof text);
    assert_string_equal(text, "-1000");
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_enabled_by_step8_steers_without_sending, cycle_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_cleared_by_step8_sends_without_steering, cycle_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_neither_while_invalid, cycle_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_steps_in_order, cycle_board, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
