/* Offset readout and synchronisation enable (Part 3.6). */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "test_support.h"

#define REG14 "./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0"
#define REG2 "./spiWrite -m 0 -l 3 -d 1 2 0"
#define CLOCKVAR "ntpq -c clockvar"

static int offset_board(void **state)
{
    board_setup(state);
    memset(Command_Out, 0, sizeof Command_Out);
    Max = 0;
    Min = 0;
    n = 0;
    Jitter = 0;
    Sync_En = 0;
    sync_count = 0;
    return 0;
}

/* The offset text at Command_Out 53 (nine bytes, terminated). */
static const char *offset_text(void)
{
    static char text[10];
    command_out_text(CO_OFFSET, text, sizeof text);
    return text;
}

static int32_t offset_of(uint32_t raw)
{
    vplat_reg_set(14, raw);
    return ControlOffset();
}

static void test_raw_5(void **state)
{
    (void)state;
    /* E3.6-1 */
    assert_int_equal(offset_of(5), -50);
    assert_string_equal(offset_text(), "-50");
    assert_commands(0, REG14, NULL);
    assert_string_equal(vplat_cmd_mode(0), "r");
}

static void test_raw_99999995(void **state)
{
    (void)state;
    /* E3.6-2: x = 999999950 folds to +50. */
    assert_int_equal(offset_of(99999995), 50);
    assert_string_equal(offset_text(), "50");
}

static void test_exactly_half_second(void **state)
{
    (void)state;
    /* E3.6-3: x = 500000000 is not greater than 500000000: -500000000; the
     * text is cut to -5000000 while Max, Min and Jitter use the full value. */
    assert_int_equal(offset_of(50000000), -500000000);
    assert_string_equal(offset_text(), "-5000000");
    assert_int_equal(Min, -500000000);
    assert_int_equal(Max, 0);
    n = 127;
    assert_int_equal(offset_of(50000000), -500000000);
    assert_int_equal(Jitter, 500000000);
    assert_int_equal(Max, -500000000);
    assert_int_equal(Min, -500000000);
    /* One tick more: x = 500000010 folds to +499999990, cut as well. */
    assert_int_equal(offset_of(50000001), 1000000000 - 500000010);
    assert_string_equal(offset_text(), "49999999");
}

static void test_long_texts_are_cut(void **state)
{
    (void)state;
    /* E3.6-4: -10000000 and below, +100000000 and above: 8 characters. */
    assert_int_equal(offset_of(1000000), -10000000);
    assert_string_equal(offset_text(), "-1000000");
    assert_int_equal(offset_of(999999), -9999990);
    assert_string_equal(offset_text(), "-9999990"); /* 8 characters: not cut */
    assert_int_equal(offset_of(90000000), 100000000);
    assert_string_equal(offset_text(), "10000000");
    assert_int_equal(offset_of(90000001), 99999990);
    assert_string_equal(offset_text(), "99999990");
    assert_int_equal(offset_of(25000000), -250000000);
    assert_string_equal(offset_text(), "-2500000");
    /* The terminator at position 61 is the ninth byte; 62 is never written. */
    Command_Out[62] = 'k';
    offset_of(25000000);
    assert_int_equal(Command_Out[61], '\0');
    assert_int_equal(Command_Out[62], 'k');
}

static void test_no_measurement(void **state)
{
    (void)state;
    /* E3.6-5: all bits set gives 0. */
    Max = 7;
    assert_int_equal(offset_of(4294967295u), 0);
    assert_string_equal(offset_text(), "0");
    /* 0xFEEEEEEE is the first "no measurement" value; 0xFEEEEEED is not. */
    assert_int_equal(offset_of(0xFEEEEEEEu), 0);
    assert_string_equal(offset_text(), "0");
    assert_int_equal(n, 2); /* the 0 enters the block statistics */
    assert_int_equal(Min, 0);
}

static void test_impossible_raw_values_wrap_like_32_bits(void **state)
{
    (void)state;
    /* Part 3.6 "Left to the implementer": raw from 100000000 to 4277071597
     * follows signed 32-bit arithmetic (two's complement), without undefined
     * behaviour (UBSan runs these). */
    assert_int_equal(offset_of(100000000), 0);            /* x = 1e9: 1e9 - x */
    assert_int_equal(offset_of(0xFEEEEEEDu), 178956990);  /* x wraps to -178956990 */
    assert_int_equal(offset_of(1073741824u), INT32_MIN);  /* x = -2^31; -x wraps */
    assert_int_equal(offset_of(214748365u), 2147483646);  /* x wraps to -2147483646 */
    assert_int_equal(offset_of(214748364u), -1147483640); /* x = 2147483640 > 5e8 */
    assert_string_equal(offset_text(), "-1147483");
    assert_int_equal(offset_of(429496730u), -4); /* x wraps to 4 */
    /* Max - Min of such values wraps the same way. */
    assert_int_equal(Max, 2147483646);
    assert_int_equal(Min, INT32_MIN);
    n = 127;
    offset_of(5);
    assert_int_equal(Jitter, -2); /* 2147483646 - (-2147483648) in 32 bits */
}

static void test_jitter_block_of_128(void **state)
{
    (void)state;
    /* E3.6-6: the 128th call ends the block with this call's offset in it,
     * then starts the next block from it. The first block includes 0. */
    Jitter = 12345;
    for (int i = 1; i <= 127; i++) {
        offset_of((uint32_t)(100 + i)); /* offsets -1010 .. -2270 */
        assert_int_equal(Jitter, 12345);
        assert_int_equal(n, i);
    }
    assert_int_equal(Max, 0);
    assert_int_equal(Min, -2270);
    assert_int_equal(offset_of(99999000), 10000); /* 128th call */
    assert_int_equal(Jitter, 10000 - (-2270));
    assert_int_equal(Max, 10000);
    assert_int_equal(Min, 10000);
    assert_int_equal(n, 0);
    /* The next block starts from 10000, not from 0. */
    for (int i = 0; i < 127; i++)
        offset_of(99999990); /* +100 */
    assert_int_equal(Jitter, 12270);
    offset_of(99999980); /* +200, the 128th of the second block */
    assert_int_equal(Jitter, 10000 - 100);
}

static void test_register14_read_failures(void **state)
{
    (void)state;
    /* Part 3.6 "Left to the implementer": a read that cannot be started, or
     * prints fewer than five lines, is taken as no measurement: offset 0. */
    vplat_reg_set(14, 5);
    vplat_fail_command(REG14);
    Command_Out[CO_OFFSET] = '9';
    assert_int_equal(ControlOffset(), 0);
    assert_string_equal(offset_text(), "0");
    assert_int_equal(n, 1);

    vplat_on_command(REG14, "one\ntwo\nthree\nfour\n");
    assert_int_equal(ControlOffset(), 0);
    vplat_on_command(REG14, "");
    assert_int_equal(ControlOffset(), 0);
    assert_int_equal(n, 3);
}

static void test_register14_garbage_and_tool_faults(void **state)
{
    (void)state;
    /* Garbage on the fifth line parses as 0 (Part 3.6 failure handling):
     * raw 0, offset 0; nothing is read beyond the line. */
    vplat_reg_set(14, 5);
    vplat_regtool_fault(1);
    assert_int_equal(ControlOffset(), 0);
    vplat_regtool_fault(2); /* two lines only */
    assert_int_equal(ControlOffset(), 0);
    vplat_regtool_fault(0);
    vplat_on_command(REG14, spi_output("AA AA"));
    assert_int_equal(ControlOffset(), 0);
    vplat_on_command(REG14, spi_output("AA AA 05\n"));
    assert_int_equal(ControlOffset(), -50);
    /* Six fgets calls: a sixth line of output would be the one used. */
    vplat_on_command(REG14, "1\n2\n3\n4\nAA AA 05 00 00 00\nAA AA 06 00 00 00\n");
    assert_int_equal(ControlOffset(), -60);
}

/* ---- Nav_Parse ---- */

static void test_59_valid_then_invalid(void **state)
{
    (void)state;
    /* E3.6-7 */
    vplat_reg_set(2, 0x07);
    vplat_set_rmc_status('A');
    for (int i = 0; i < 59; i++)
        Nav_Parse();
    assert_int_equal(sync_count, 59);
    assert_int_equal(Sync_En, 0);
    for (size_t i = 0; i < 59; i++)
        assert_string_equal(vplat_cmd(i), CLOCKVAR);
    assert_int_equal(vplat_cmd_count(), 59);

    vplat_set_rmc_status('V');
    Nav_Parse();
    assert_int_equal(Sync_En, 0);
    assert_int_equal(sync_count, 0);
    assert_commands(59, CLOCKVAR, REG2, "./spiWrite -m 1 -l 3 -d 1 1 6 0", NULL);
    assert_int_equal(vplat_cmd_count(), 62);
    assert_string_equal(vplat_cmd_mode(61), "r");
    assert_int_equal(vplat_reg_get(1), 6);
}

static void test_60_valid_sets_and_120_repeats(void **state)
{
    (void)state;
    /* E3.6-8 */
    vplat_reg_set(2, 0x1E);
    vplat_set_rmc_status('A');
    for (int i = 0; i < 59; i++)
        Nav_Parse();
    assert_int_equal(Sync_En, 0);
    Nav_Parse(); /* the 60th */
    assert_int_equal(Sync_En, 1);
    assert_int_equal(sync_count, 0);
    size_t next = assert_commands(59, CLOCKVAR, REG2, "./spiWrite -m 1 -l 3 -d 1 1 31 0", NULL);
    assert_string_equal(vplat_cmd_mode(61), "r");
    for (int i = 0; i < 59; i++)
        Nav_Parse();
    assert_int_equal(vplat_cmd_count(), next + 59); /* nothing but the queries */
    Sync_En = 0; /* written 1 again in the 120th, whatever it held */
    vplat_reg_set(2, 0x1F);
    Nav_Parse();
    assert_int_equal(Sync_En, 1);
    assert_commands(next + 59, CLOCKVAR, REG2, "./spiWrite -m 1 -l 3 -d 1 1 31 0", NULL);
}

static void test_invalid_clears_at_once(void **state)
{
    (void)state;
    /* The first invalid cycle clears Sync_En and register 1 bit 0; every
     * invalid cycle rewrites register 1. */
    Sync_En = 1;
    sync_count = 30;
    vplat_reg_set(2, 0x01);
    vplat_set_rmc_status('V');
    Nav_Parse();
    Nav_Parse();
    assert_int_equal(Sync_En, 0);
    assert_int_equal(sync_count, 0);
    assert_commands(0, CLOCKVAR, REG2, "./spiWrite -m 1 -l 3 -d 1 1 0 0", CLOCKVAR, REG2,
                    "./spiWrite -m 1 -l 3 -d 1 1 0 0", NULL);
}

static void test_clockvar_cannot_start(void **state)
{
    (void)state;
    /* Part 3.6 step 1: nothing changes, neither count nor flag nor register. */
    Sync_En = 1;
    sync_count = 42;
    vplat_fail_command(CLOCKVAR);
    Nav_Parse();
    assert_int_equal(Sync_En, 1);
    assert_int_equal(sync_count, 42);
    assert_commands(0, CLOCKVAR, NULL);
    assert_int_equal(vplat_cmd_count(), 1);
}

static void test_short_clockvar_is_invalid(void **state)
{
    (void)state;
    /* Part 3.6 "Left to the implementer": fewer than three lines, or a third
     * line shorter than 28 characters, is a cycle without valid data. */
    vplat_reg_set(2, 0x03);
    static const char *const outputs[] = {
        "",
        "associd=0 status=0000 no events, clk_unspec,\n",
        ("associd=0 status=0000 no events, clk_unspec,\n"
         "device=\"NMEA GPS Clock\", timecode=\"$GPRMC,161327,A,,,,,,,161126,,,N*50\",\n"),
        /* two lines, the second with A at 27: still fewer than three */
        ("associd=0 status=0000 no events, clk_unspec,\n"
         "timecode=\"$GPRMC,132746.00,A,5540.1234,N,03736.5678,E\",\n"),
        "associd=0\ndevice=\"NMEA GPS Clock\",\ntimecode=\"$GPRMC,132746.00,\n",
        "associd=0\ndevice=\"NMEA GPS Clock\",\ntimecode=\"$GPRMC,132746.00,",
        "associd=0\ndevice=\"NMEA GPS Clock\",\n\n",
    };
    for (size_t i = 0; i < sizeof outputs / sizeof outputs[0]; i++) {
        Sync_En = 1;
        sync_count = 10;
        vplat_on_command(CLOCKVAR, outputs[i]);
        size_t from = vplat_cmd_count();
        Nav_Parse();
        assert_int_equal(Sync_En, 0);
        assert_int_equal(sync_count, 0);
        assert_commands(from, CLOCKVAR, REG2, "./spiWrite -m 1 -l 3 -d 1 1 2 0", NULL);
    }
}

static void test_ntpq_missing_is_invalid(void **state)
{
    (void)state;
    /* A missing ntpq: the shell starts and prints nothing on standard output,
     * which is a cycle without valid data, unlike a command that cannot start. */
    vplat_reg_set(2, 0x01);
    vplat_tool_absent("ntpq", 1);
    Sync_En = 1;
    sync_count = 3;
    Nav_Parse();
    assert_int_equal(Sync_En, 0);
    assert_int_equal(sync_count, 0);
    assert_commands(0, CLOCKVAR, REG2, "./spiWrite -m 1 -l 3 -d 1 1 0 0", NULL);
}

static void test_status_letter_at_column_27(void **state)
{
    (void)state;
    /* A third line of exactly 28 characters holding A at 27 is valid. */
    vplat_on_command(CLOCKVAR,
                     "associd=0\ndevice=\"NMEA GPS Clock\",\ntimecode=\"$GPRMC,132746.00,A");
    Nav_Parse();
    assert_int_equal(sync_count, 1);
    /* The letter elsewhere does not count: hhmmss receivers put it at 24. */
    vplat_reg_set(2, 0);
    vplat_on_command(CLOCKVAR, "associd=0\ndevice=\"NMEA GPS Clock\",\n"
                               "timecode=\"$GPRMC,132746,A,5540.1234,N,03736.5678,E,0.00\",\n");
    Nav_Parse();
    assert_int_equal(sync_count, 0);
    /* The virtual board's real format with a valid fix. */
    char out[512];
    vplat_format_clockvar((int64_t)T_EXAMPLE * 1000000, 'A', out, sizeof out);
    vplat_on_command(CLOCKVAR, out);
    Nav_Parse();
    assert_int_equal(sync_count, 1);
}

static void test_register2_read_failure_skips_write(void **state)
{
    (void)state;
    /* Part 2.2 "Left to the implementer": a failed read of register 2 is not
     * written back; the flag itself still changes. */
    vplat_fail_command(REG2);
    Sync_En = 1;
    vplat_set_rmc_status('V');
    Nav_Parse();
    assert_int_equal(Sync_En, 0);
    assert_commands(0, CLOCKVAR, REG2, NULL);
    assert_int_equal(vplat_cmd_count(), 2);

    vplat_set_rmc_status('A');
    sync_count = 59;
    Nav_Parse();
    assert_int_equal(Sync_En, 1);
    assert_int_equal(sync_count, 0);
    assert_commands(2, CLOCKVAR, REG2, NULL);
    assert_int_equal(vplat_cmd_count(), 4);

    /* Four lines of output are a failed read as well. */
    vplat_on_command(REG2, "1\n2\n3\n4\n");
    vplat_set_rmc_status('V');
    Nav_Parse();
    assert_int_equal(vplat_cmd_count(), 6);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_raw_5, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_raw_99999995, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_exactly_half_second, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_long_texts_are_cut, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_no_measurement, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_impossible_raw_values_wrap_like_32_bits, offset_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_jitter_block_of_128, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_register14_read_failures, offset_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_register14_garbage_and_tool_faults, offset_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_59_valid_then_invalid, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_60_valid_sets_and_120_repeats, offset_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_invalid_clears_at_once, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_clockvar_cannot_start, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_short_clockvar_is_invalid, offset_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_ntpq_missing_is_invalid, offset_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_status_letter_at_column_27, offset_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_register2_read_failure_skips_write, offset_board,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
