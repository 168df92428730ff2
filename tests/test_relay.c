/* Relay reset (Part 3.3): five-second timers and the register-2 pulses. */
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "test_support.h"

#define REG28 "./spiWrite -m 0 -l 3 -d 1 28 0 0"
#define REG2 "./spiWrite -m 0 -l 3 -d 1 2 0"
#define W2(v) "./spiWrite -m 1 -l 3 -d 1 2 " v " 0"

static int relay_board(void **state)
{
    board_setup(state);
    flags = 0;
    over_1 = 0;
    over_2 = 0;
    event1 = 0;
    event2 = 0;
    now = 0;
    return 0;
}

/* One call of Relay_Reset at T_EXAMPLE + seconds; returns the index of its first command. */
static size_t call_at(int seconds)
{
    vplat_set_now_us((int64_t)(T_EXAMPLE + seconds) * 1000000 + 250000);
    size_t from = vplat_cmd_count();
    Relay_Reset();
    return from;
}

static void assert_only_read(size_t from)
{
    assert_commands(from, REG28, NULL);
    assert_int_equal(vplat_cmd_count(), from + 1);
}

static void assert_modes(size_t from)
{
    for (size_t i = from; i < vplat_cmd_count(); i++)
        assert_string_equal(vplat_cmd_mode(i),
                            strncmp(vplat_cmd(i), "./spiWrite -m 1", 15) == 0 ? "w" : "r");
}

static void test_flag1_pulses_after_five_seconds(void **state)
{
    (void)state;
    /* E3.3-1: seen at T; calls at T+1 to T+4 do nothing; T+5 pulses. */
    vplat_reg_set(28, 0x01);
    vplat_reg_set(2, 0x05);
    assert_only_read(call_at(0));
    assert_int_equal(over_1, 1);
    assert_int_equal(event1, T_EXAMPLE);
    assert_int_equal(flags, 1);
    for (int s = 1; s <= 4; s++)
        assert_only_read(call_at(s));
    size_t from = call_at(5);
    /* E2.2-1 too: register 2 at 0x05 gives 7, then 5. */
    size_t end = assert_commands(from, REG28, REG2, W2("7"), REG2, W2("5"), NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_modes(from);
    assert_int_equal(over_1, 0);
    assert_int_equal(event1, 0);
    assert_int_equal(now, T_EXAMPLE + 5);
    /* The flag still set is a new event: acknowledged again 5 s later. */
    assert_only_read(call_at(6));
    assert_int_equal(event1, T_EXAMPLE + 6);
    for (int s = 7; s <= 10; s++)
        assert_only_read(call_at(s));
    from = call_at(11);
    assert_commands(from, REG28, REG2, W2("7"), REG2, W2("5"), NULL);
}

static void test_late_call_still_pulses(void **state)
{
    (void)state;
    /* E3.3-1: the first call at T+5 "or later" pulses. */
    vplat_reg_set(28, 0x01);
    vplat_reg_set(2, 0x00);
    call_at(0);
    vplat_reg_set(28, 0x00);
    assert_only_read(call_at(3));
    size_t from = call_at(9);
    assert_commands(from, REG28, REG2, W2("2"), REG2, W2("0"), NULL);
}

static void test_flag_seen_once(void **state)
{
    (void)state;
    /* E3.3-2: seen once and gone at the next read: the pulse still comes. */
    vplat_reg_set(28, 0x01);
    vplat_reg_set(2, 0x10);
    call_at(0);
    vplat_reg_set(28, 0x00);
    for (int s = 1; s <= 4; s++)
        assert_only_read(call_at(s));
    size_t from = call_at(5);
    assert_commands(from, REG28, REG2, W2("18"), REG2, W2("16"), NULL);
    assert_only_read(call_at(6));
    assert_only_read(call_at(12));
}

static void test_both_flags_bit1_first(void **state)
{
    (void)state;
    /* E3.3-3: both flags in one call: two pulses in one later call, bit 1 first. */
    vplat_reg_set(28, 0x03);
    vplat_reg_set(2, 0x00);
    call_at(0);
    assert_int_equal(over_1, 1);
    assert_int_equal(over_2, 2);
    vplat_reg_set(28, 0x00);
    for (int s = 1; s <= 4; s++)
        assert_only_read(call_at(s));
    size_t from = call_at(5);
    size_t end = assert_commands(from, REG28, REG2, W2("2"), REG2, W2("0"), REG2, W2("4"), REG2,
                                 W2("0"), NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_modes(from);
}

static void test_event2_with_register2_at_1(void **state)
{
    (void)state;
    /* E3.3-4: register 2 reads 0x01 when event 2 expires: 5, then 1. */
    vplat_reg_set(28, 0x02);
    vplat_reg_set(2, 0x01);
    call_at(0);
    assert_int_equal(over_1, 0);
    assert_int_equal(over_2, 2);
    assert_int_equal(event2, T_EXAMPLE);
    vplat_reg_set(28, 0x00);
    size_t from = call_at(5);
    assert_commands(from, REG28, REG2, W2("5"), REG2, W2("1"), NULL);
    assert_int_equal(over_2, 0);
    assert_int_equal(event2, 0);
}

static void test_independent_timers(void **state)
{
    (void)state;
    /* Event 2 seen two seconds after event 1 expires two seconds later. */
    vplat_reg_set(2, 0x00);
    vplat_reg_set(28, 0x01);
    call_at(0);
    vplat_reg_set(28, 0x02);
    call_at(2);
    vplat_reg_set(28, 0x00);
    size_t from = call_at(5);
    assert_commands(from, REG28, REG2, W2("2"), REG2, W2("0"), NULL);
    assert_int_equal(vplat_cmd_count(), from + 5);
    assert_only_read(call_at(6));
    from = call_at(7);
    assert_commands(from, REG28, REG2, W2("4"), REG2, W2("0"), NULL);
    /* Bits 2 to 7 of register 28 are not flags. */
    vplat_reg_set(28, 0xFC);
    assert_only_read(call_at(8));
    assert_int_equal(flags, 0);
}

static void test_register28_read_failure(void **state)
{
    (void)state;
    /* Part 3.3: a failed register-28 read carries no flags; a pending event
     * still expires on time. */
    vplat_reg_set(2, 0x00);
    vplat_fail_command(REG28);
    vplat_reg_set(28, 0x03);
    assert_only_read(call_at(0));
    assert_int_equal(over_1, 0);
    assert_int_equal(flags, 0);
    vplat_on_command(REG28, spi_output("AA AA 01\n"));
    call_at(1);
    assert_int_equal(over_1, 1);
    vplat_on_command(REG28, "1\n2\n3\n4\n"); /* four lines: no flags */
    call_at(2);
    assert_int_equal(flags, 0);
    vplat_regtool_fault(1); /* garbage: parses as 0 */
    vplat_on_command(REG28, "");
    call_at(3);
    assert_int_equal(flags, 0);
    vplat_regtool_fault(0);
    vplat_fail_command(REG28);
    size_t from = call_at(6);
    assert_commands(from, REG28, REG2, W2("2"), REG2, W2("0"), NULL);
}

static void test_register2_read_failure_skips_write(void **state)
{
    (void)state;
    /* Part 2.2 "Left to the implementer": a failed read of register 2 is not
     * written back; the event is still taken as acknowledged. */
    vplat_reg_set(28, 0x01);
    call_at(0);
    vplat_reg_set(28, 0x00);
    vplat_fail_command(REG2);
    size_t from = call_at(5);
    assert_commands(from, REG28, REG2, REG2, NULL);
    assert_int_equal(vplat_cmd_count(), from + 3);
    assert_int_equal(over_1, 0);
}

static void test_clock_step_back(void **state)
{
    (void)state;
    /* Part 3.3 failure handling: a clock stepped back delays the pulse until
     * it has passed the recorded time by five seconds again. */
    vplat_reg_set(28, 0x01);
    call_at(100);
    vplat_reg_set(28, 0x00);
    assert_only_read(call_at(50));
    assert_only_read(call_at(104));
    size_t from = call_at(105);
    assert_commands(from, REG28, REG2, NULL);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_flag1_pulses_after_five_seconds, relay_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_late_call_still_pulses, relay_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_flag_seen_once, relay_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_both_flags_bit1_first, relay_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_event2_with_register2_at_1, relay_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_independent_timers, relay_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_register28_read_failure, relay_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_register2_read_failure_skips_write, relay_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_clock_step_back, relay_board, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
