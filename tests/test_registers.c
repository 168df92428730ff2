/* FPGA register access (Part 2.2) and the command runner it is built on. */
#include <stdio.h>
#include <string.h>

#include "daemon/shared.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "test_support.h"

static void test_pulse_bit1_command_lines(void **state)
{
    (void)state;
    /* E2.2-1: register 2 reads 0x05; pulsing bit 1 writes 7, then 5. */
    vplat_reg_set(2, 0x05);
    assert_int_equal(reg2_modify(2, 0, "w"), 7);
    vplat_reg_set(2, 0x07);
    assert_int_equal(reg2_modify(0, 2, "w"), 5);
    assert_commands(0, "./spiWrite -m 0 -l 3 -d 1 2 0", "./spiWrite -m 1 -l 3 -d 1 2 7 0",
                    "./spiWrite -m 0 -l 3 -d 1 2 0", "./spiWrite -m 1 -l 3 -d 1 2 5 0", NULL);
    assert_string_equal(vplat_cmd_mode(1), "w");
}

static void test_one_byte_read(void **state)
{
    (void)state;
    /* E2.2-2 */
    assert_int_equal(reg_parse_byte("AA AA 3C\n"), 60);
    vplat_on_command("./spiWrite -m 0 -l 3 -d 1 28 0 0", spi_output("AA AA 3C\n"));
    long v = -1;
    assert_int_equal(reg_read_byte("./spiWrite -m 0 -l 3 -d 1 28 0 0", 5, &v), 0);
    assert_int_equal(v, 60);
}

static void test_two_byte_read(void **state)
{
    (void)state;
    /* E2.2-3 */
    assert_int_equal(reg_parse_word("AA AA 34 12\n"), 4660);
    vplat_reg_set(26, 0x1234);
    long v = -1;
    assert_int_equal(reg_read_word("./spiWrite -m 0 -l 4 -d 2 26 0 0", &v), 0);
    assert_int_equal(v, 4660);
}

static void test_four_byte_parse(void **state)
{
    (void)state;
    assert_int_equal(reg_parse_bytes4("AA AA 05 00 00 00\n"), 5);
    assert_int_equal(reg_parse_bytes4("AA AA FB E0 F5 05\n"), 99999995u);
    assert_int_equal(reg_parse_bytes4("AA AA FF FF FF FF\n"), 4294967295u);
    /* Short or foreign lines parse as 0 and never read past their end. */
    assert_int_equal(reg_parse_bytes4("AA AA"), 0);
    assert_int_equal(reg_parse_byte("AA"), 0);
    assert_int_equal(reg_parse_byte("AA AA zz\n"), 0);
    assert_int_equal(reg_parse_word("AA AA 3"), 3);
}

static void test_read_control(void **state)
{
    (void)state;
    vplat_reg_set(2, 0x1E);
    assert_int_equal(Read_Control(), 0x1E);
    assert_commands(0, "./spiWrite -m 0 -l 3 -d 1 2 0", NULL);
}

static void test_read_control_six_calls_takes_fifth_line(void **state)
{
    (void)state;
    /* Six fgets calls: the sixth finds the end and leaves the fifth line. */
    vplat_on_command(REG2_READ_CMD, "1\n2\n3\n4\nAA AA 11\n");
    assert_int_equal(Read_Control(), 0x11);
}

static void test_failed_read_is_never_written_back(void **state)
{
    (void)state;
    /* Part 2.2 "Left to the implementer": fewer than five lines or a tool that
     * cannot start gives no value, and the read-modify-write skips its write. */
    vplat_on_command(REG2_READ_CMD, "only\nfour\nlines\nhere\n");
    assert_int_equal(Read_Control(), -1);
    assert_int_equal(reg2_modify(1, 0, "r"), -1);
    vplat_fail_command(REG2_READ_CMD);
    assert_int_equal(Read_Control(), -1);
    assert_int_equal(reg2_modify(0, 1, "r"), -1);
    for (size_t i = 0; i < vplat_cmd_count(); i++)
        assert_string_equal(vplat_cmd(i), REG2_READ_CMD);
    vplat_tool_absent("spiWrite", 1);
    long v = 7;
    assert_int_equal(reg_read_byte("./spiWrite -m 0 -l 3 -d 1 48 0", 5, &v), -1);
    assert_int_equal(v, 7);
}

static void test_write_lines(void **state)
{
    (void)state;
    assert_int_equal(reg_write(1, 31, "r"), 0);
    assert_int_equal(reg_write(2, 30, "w"), 0);
    assert_commands(0, "./spiWrite -m 1 -l 3 -d 1 1 31 0", "./spiWrite -m 1 -l 3 -d 1 2 30 0",
                    NULL);
    assert_int_equal(vplat_reg_get(1), 31);
    vplat_fail_command("./spiWrite -m 1 -l 3 -d 1 1 1 0");
    assert_int_equal(reg_write(1, 1, "r"), -1);
}

/* ---- the runner ---- */

static void test_runner_short_output(void **state)
{
    (void)state;
    char buf[100];
    vplat_on_command("tool", "one\ntwo\n");
    assert_int_equal(run_read_lines("tool", 5, 5, buf, sizeof buf), RUN_SHORT);
    assert_string_equal(buf, "");
    assert_int_equal(run_read_lines("tool", 5, 2, buf, sizeof buf), 0);
    assert_string_equal(buf, "two\n");
    vplat_on_command("silent", "");
    assert_int_equal(run_read_lines("silent", 1, 1, buf, sizeof buf), RUN_SHORT);
    assert_int_equal(run_has_output("silent"), 0);
    assert_int_equal(run_has_output("tool"), 1);
}

static void test_runner_missing_tool(void **state)
{
    (void)state;
    char buf[100] = "stale";
    vplat_fail_command("nosuchtool");
    assert_int_equal(run_read_lines("nosuchtool", 1, 1, buf, sizeof buf), RUN_NOT_STARTED);
    assert_string_equal(buf, "");
    assert_int_equal(run_command("nosuchtool", "w"), -1);
    assert_int_equal(run_has_output("nosuchtool"), 0);
    /* A program the shell cannot find prints nothing on standard output. */
    vplat_tool_absent("ntpq", 1);
    assert_int_equal(run_has_output("ntpq -p | grep '*G'"), 0);
}

static void test_runner_overlong_lines(void **state)
{
    (void)state;
    /* A line longer than the buffer is read in pieces, each piece counting as
     * a line, as the spec's fgets loops read it; the buffer never overflows. */
    char longline[260];
    memset(longline, 'x', 250);
    longline[250] = '\n';
    longline[251] = '\0';
    char out[400];
    snprintf(out, sizeof out, "%sAA AA 01\n", longline);
    vplat_on_command("long", out);
    char buf[100];
    assert_int_equal(run_read_lines("long", 3, 3, buf, sizeof buf), 0);
    assert_int_equal(strlen(buf), 53); /* the last 52 x and the newline */
    assert_int_equal(run_read_lines("long", 4, 4, buf, sizeof buf), 0);
    assert_string_equal(buf, "AA AA 01\n");
}

static void test_runner_line_without_newline(void **state)
{
    (void)state;
    vplat_on_command("nonl", "a\nb\nc\nd\nAA AA 2A");
    char buf[100];
    assert_int_equal(run_read_lines("nonl", 6, 5, buf, sizeof buf), 0);
    assert_string_equal(buf, "AA AA 2A");
    assert_int_equal(reg_parse_byte(buf), 42);
}

static void test_runner_binary_junk(void **state)
{
    (void)state;
    static const char junk[] = "\x01\x02\xff\xfe\n\x80\x81\n\n\n\xff\xff"
                               "AA\xfe\n";
    vplat_on_command("junk", junk);
    /* Five lines, but no number at column 6 of the fifth: no value, so a
     * read-modify-write skips its write. */
    long v = -1;
    assert_int_equal(reg_read_byte("junk", 5, &v), -1);
    assert_int_equal(v, -1);
    vplat_on_command(REG2_READ_CMD, "1\n2\n3\n4\nAA AA ZZ\n");
    assert_int_equal(Read_Control(), -1);
    assert_int_equal(reg2_modify(1, 0, "r"), -1);
    assert_int_equal(vplat_cmd_occurrences("./spiWrite -m 1 -l 3 -d 1 2 1 0"), 0);
    /* A number after blanks is a number, as strtol reads it. */
    vplat_on_command("spaced", "1\n2\n3\n4\nAA AA  7\n");
    assert_int_equal(reg_read_byte("spaced", 5, &v), 0);
    assert_int_equal(v, 7);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_pulse_bit1_command_lines, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_one_byte_read, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_two_byte_read, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_four_byte_parse, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_read_control, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_read_control_six_calls_takes_fifth_line, board_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_failed_read_is_never_written_back, board_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_write_lines, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_runner_short_output, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_runner_missing_tool, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_runner_overlong_lines, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_runner_line_without_newline, board_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_runner_binary_junk, board_setup, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
