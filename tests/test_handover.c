/* Time hand-over to the FPGA (Part 3.4). */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "test_support.h"

#define OPEN(n) "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 " n "\n"
#define CLOSE(n) "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 " n "\n"
#define SECONDS(bytes) "/usr/bin/Zarvent/spiWrite -m 1 -l 8 -d 6 3 " bytes "\n"

/* The spec's example line of Part 3.4 step 2, in ntptime's full output. */
static const char EXAMPLE_NTPTIME[] =
    "ntp_gettime() returns code 0 (OK)\n"
    "  time eea58352.1f2e3d4c  Mon, Nov 16 2026 13:27:46.121, (.121751),\n"
    "  maximum error 16000 us, estimated error 16 us, TAI offset 37\n";

static int handover_board(void **state)
{
    board_setup(state);
    memset(Command_Out, 0, sizeof Command_Out);
    atomic_store(&Leap_Time, 37);
    Trans_count = 1;
    Sync_En = 1;
    return 0;
}

/* ntptime's output at a virtual time. */
static const char *ntptime_at(time_t t, int ms)
{
    static char out[4][1024];
    static int next;
    char *buf = out[next++ % 4];
    vplat_format_ntptime((int64_t)t * 1000000 + ms * 1000, 37, buf, 1024);
    return buf;
}

static void assert_slot(size_t pos, const char *text, size_t len)
{
    char got[64];
    command_out_get(pos, got, len);
    assert_memory_equal(got, text, len);
}

static void assert_modes_w(size_t from, size_t to)
{
    for (size_t i = from; i < to; i++)
        if (strcmp(vplat_cmd(i), "ntptime") != 0)
            assert_string_equal(vplat_cmd_mode(i), "w");
}

static void test_worked_example(void **state)
{
    (void)state;
    /* Part 3.4 worked example and E3.4-4: 1794835704 is written as
     * 248 4 251 106 0 0; Trans_count 5 becomes 6. */
    Trans_count = 5;
    vplat_on_command("ntptime", EXAMPLE_NTPTIME);
    ControlTime(Command_Out + CO_NOW);
    assert_int_equal(Time_to_hex("eea58352.1f2e3d4c "), 1794835704);
    Send_Time();
    size_t end = assert_commands(0, "ntptime", OPEN("5"), SECONDS("248 4 251 106 0 0"), "ntptime",
                                 CLOSE("5"), NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_modes_w(0, end);
    assert_int_equal(Trans_count, 6);
    /* The FPGA model received the three values. */
    assert_int_equal(vplat_reg_get(10), 5);
    assert_int_equal(vplat_reg_get(3), 1794835704);
    assert_int_equal(vplat_reg_get(11), 5);
}

static void test_worked_example_from_board_clock(void **state)
{
    (void)state;
    /* The same second from the virtual board's ntptime (T_EXAMPLE). */
    Trans_count = 5;
    ControlTime(Command_Out + CO_NOW);
    assert_slot(CO_STAMP, "eea58352.", 9);
    Send_Time();
    assert_commands(0, "ntptime", OPEN("5"), SECONDS("248 4 251 106 0 0"), "ntptime", CLOSE("5"),
                    NULL);
    assert_int_equal(Trans_count, 6);
}

static void test_second_rolls_over(void **state)
{
    (void)state;
    /* E3.4-1: registers 10 and 3 written, 11 not, Trans_count unchanged. */
    Trans_count = 9;
    vplat_on_command_once("ntptime", ntptime_at(T_EXAMPLE, 998));
    vplat_on_command_once("ntptime", ntptime_at(T_EXAMPLE + 1, 2));
    ControlTime(Command_Out + CO_NOW);
    Send_Time();
    size_t end =
        assert_commands(0, "ntptime", OPEN("9"), SECONDS("248 4 251 106 0 0"), "ntptime", NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_int_equal(Trans_count, 9);
    /* The second reading is in the slots. */
    assert_slot(CO_NOW, "Nov 16 2026 13:27:47.002", 25);
    assert_slot(CO_STAMP, "eea58353.", 9);
    /* The next cycle repeats the transaction with the same number. */
    vplat_set_now_us((int64_t)(T_EXAMPLE + 1) * 1000000 + 500000);
    Send_Time();
    assert_commands(end, OPEN("9"), SECONDS("249 4 251 106 0 0"), "ntptime", CLOSE("9"), NULL);
    assert_int_equal(Trans_count, 10);
}

static void test_counter_wraps_to_1(void **state)
{
    (void)state;
    /* E3.4-2: 255 closes with 255 and the counter becomes 1, not 0. */
    Trans_count = 255;
    ControlTime(Command_Out + CO_NOW);
    Send_Time();
    assert_commands(0, "ntptime", OPEN("255"), SECONDS("248 4 251 106 0 0"), "ntptime",
                    CLOSE("255"), NULL);
    assert_int_equal(Trans_count, 1);
    Send_Time();
    assert_commands(5, OPEN("1"), SECONDS("248 4 251 106 0 0"), "ntptime", CLOSE("1"), NULL);
    assert_int_equal(Trans_count, 2);
}

static void test_leap_unknown(void **state)
{
    (void)state;
    /* E3.4-3: Leap_Time -1: T equals the Unix seconds of the current second. */
    atomic_store(&Leap_Time, -1);
    assert_int_equal(Time_to_hex("eea58352.1f2e3d4c "), (int64_t)T_EXAMPLE);
    ControlTime(Command_Out + CO_NOW);
    Send_Time();
    /* 1794835666 = 0x6AFB04D2 */
    assert_commands(0, "ntptime", OPEN("1"), SECONDS("210 4 251 106 0 0"), "ntptime", CLOSE("1"),
                    NULL);
    assert_int_equal(vplat_reg_get(3), (uint64_t)T_EXAMPLE);
}

static void test_seconds_beyond_32_bits(void **state)
{
    (void)state;
    /* Six bytes: the two high bytes carry a count beyond 2^32, and every
     * value is printed in decimal without leading zeros. */
    atomic_store(&Leap_Time, 0);
    int64_t t = Time_to_hex("ffffffff.00000000 ");
    assert_int_equal(t, 4294967295LL - 2208988799LL);
    memcpy(Command_Out + CO_STAMP, "1ffffff00.0000000 ", 18);
    assert_int_equal(Time_to_hex("1ffffff00.0000000 "), 0x1ffffff00LL - 2208988799LL);
    Send_Time();
    /* 0x1ffffff00 - 2208988799 = 6380945537 = 0x17C558081 */
    assert_commands(0, OPEN("1"), SECONDS("129 128 85 124 1 0"), "ntptime", NULL);
}

static void test_time_to_hex_text(void **state)
{
    (void)state;
    /* The number ends at the point; Leap_Time is added, sign-extended. */
    atomic_store(&Leap_Time, 37);
    assert_int_equal(Time_to_hex("eea58352"), 1794835704);
    assert_int_equal(Time_to_hex("EEA58352.x"), 1794835704);
    atomic_store(&Leap_Time, -1);
    assert_int_equal(Time_to_hex("0.0"), -2208988800LL);
    assert_int_equal(Time_to_hex("zz"), -2208988800LL);
    assert_int_equal(Time_to_hex(""), -2208988800LL);
}

static void test_slots_untouched_by_other_slot(void **state)
{
    (void)state;
    /* E3.4-5: the start-time slot leaves 65-88 untouched, the current-time
     * slot leaves 117-140 untouched; both rewrite 143-160. */
    memset(Command_Out, 'x', sizeof Command_Out);
    Command_Out[161] = '\0';
    Command_Out[162] = '\0';
    vplat_on_command("ntptime", EXAMPLE_NTPTIME);
    assert_int_equal(ControlTime(Command_Out + CO_EVENT), 0);
    assert_slot(CO_EVENT, "Nov 16 2026 13:27:46.121", 25);
    assert_slot(CO_STAMP, "eea58352.1f2e3d4c ", 18);
    for (size_t i = 0; i < CO_SIZE; i++) {
        if (i >= CO_EVENT && i <= 141)
            continue;
        if (i >= CO_STAMP && i <= 160)
            continue;
        if (i >= 161)
            assert_int_equal(Command_Out[i], '\0');
        else
            assert_int_equal(Command_Out[i], 'x');
    }
    memset(Command_Out + CO_STAMP, 'y', 18);
    vplat_on_command("ntptime", ntptime_at(T_EXAMPLE + 1, 5));
    assert_int_equal(ControlTime(Command_Out + CO_NOW), 0);
    assert_slot(CO_NOW, "Nov 16 2026 13:27:47.005", 25);
    assert_slot(CO_STAMP, "eea58353.0147a000 ", 18);
    assert_slot(CO_EVENT, "Nov 16 2026 13:27:46.121", 25); /* 117-141 as before */
    assert_int_equal(Command_Out[64], 'x');
    assert_int_equal(Command_Out[90], 'x');
    assert_int_equal(Command_Out[142], 'x');
    assert_int_equal(Command_Out[161], '\0');
}

static void test_space_padded_day_and_hour(void **state)
{
    (void)state;
    /* ntptime pads the day and the hour with a blank (tool-formats.md). */
    vplat_on_command("ntptime",
                     "ntp_gettime() returns code 0 (OK)\n"
                     "  time ee97c302.014fbdac  Fri, Nov  6 2026  3:07:46.005, (.005123),\n");
    ControlTime(Command_Out + CO_NOW);
    assert_slot(CO_NOW, "Nov  6 2026  3:07:46.005", 25);
    assert_slot(CO_STAMP, "ee97c302.014fbdac ", 18);
}

static void test_ntptime_failures_leave_slots(void **state)
{
    (void)state;
    /* Part 3.4 "Left to the implementer": ntptime that cannot start, fewer
     * than two lines, or a second line shorter than 55 characters leave both
     * slots unchanged. */
    memset(Command_Out, 'q', sizeof Command_Out);
    char before[CO_SIZE];
    memcpy(before, Command_Out, sizeof before);

    vplat_fail_command("ntptime");
    assert_int_equal(ControlTime(Command_Out + CO_NOW), 0);
    assert_memory_equal(Command_Out, before, CO_SIZE);

    static const char *const outputs[] = {
        "",
        "ntp_gettime() returns code 0 (OK)\n",
        /* 54 characters: one short of the date's last character */
        "ntp_gettime() returns code 0 (OK)\n"
        "  time eea58352.1f2e3d4c  Mon, Nov 16 2026 13:27:46.12",
        /* a line in ntpsec's layout, cut after its date */
        "ntp_gettime() returns code 0 (OK)\n"
        "  time eeade443.45e05000 2026-11-22T21:59:31.272Z,\n",
        "ntp_gettime() returns code 0 (OK)\n\n",
    };
    for (size_t i = 0; i < sizeof outputs / sizeof outputs[0]; i++) {
        vplat_on_command("ntptime", outputs[i]);
        ControlTime(Command_Out + CO_NOW);
        ControlTime(Command_Out + CO_EVENT);
        assert_memory_equal(Command_Out, before, CO_SIZE);
    }
    /* Exactly 55 characters are enough. */
    vplat_on_command("ntptime", "ntp_gettime() returns code 0 (OK)\n"
                                "  time eea58352.1f2e3d4c  Mon, Nov 16 2026 13:27:46.121");
    ControlTime(Command_Out + CO_NOW);
    assert_slot(CO_NOW, "Nov 16 2026 13:27:46.121", 25);
    assert_slot(CO_STAMP, "eea58352.1f2e3d4c ", 18);
}

static void test_register_command_cannot_start(void **state)
{
    (void)state;
    /* Part 3.4 failure handling: a register command that cannot start ends
     * the call; the counter keeps its value. */
    ControlTime(Command_Out + CO_NOW);
    size_t from = vplat_cmd_count();
    Trans_count = 7;
    vplat_fail_command(OPEN("7"));
    Send_Time();
    assert_commands(from, OPEN("7"), NULL);
    assert_int_equal(vplat_cmd_count(), from + 1);
    assert_int_equal(Trans_count, 7);

    vplat_on_command(OPEN("7"), "");
    vplat_fail_command(SECONDS("248 4 251 106 0 0"));
    from = vplat_cmd_count();
    Send_Time();
    assert_commands(from, OPEN("7"), SECONDS("248 4 251 106 0 0"), NULL);
    assert_int_equal(vplat_cmd_count(), from + 2);
    assert_int_equal(Trans_count, 7);
}

static void test_close_fails_after_255(void **state)
{
    (void)state;
    /* Part 3.4 failure handling: the counter has advanced when the close
     * fails; right after 255 it stays 0 for the next transaction, which
     * then closes with 0 and steps to 1. */
    ControlTime(Command_Out + CO_NOW);
    Trans_count = 255;
    vplat_fail_command(CLOSE("255"));
    size_t from = vplat_cmd_count();
    Send_Time();
    assert_commands(from, OPEN("255"), SECONDS("248 4 251 106 0 0"), "ntptime", CLOSE("255"), NULL);
    assert_int_equal(Trans_count, 0);
    from = vplat_cmd_count();
    Send_Time();
    assert_commands(from, OPEN("0"), SECONDS("248 4 251 106 0 0"), "ntptime", CLOSE("0"), NULL);
    assert_int_equal(Trans_count, 1);
    /* A failed close at another number: the next transaction uses the next number. */
    Trans_count = 20;
    vplat_fail_command(CLOSE("20"));
    Send_Time();
    assert_int_equal(Trans_count, 21);
}

static void test_second_reading_fails(void **state)
{
    (void)state;
    /* Part 3.4 "Left to the implementer": a failed second reading does not
     * close the transaction; the counter keeps its value. */
    Trans_count = 3;
    vplat_on_command_once("ntptime", EXAMPLE_NTPTIME);
    vplat_on_command_once("ntptime", "ntp_gettime() returns code 5 (ERROR)\n");
    ControlTime(Command_Out + CO_NOW);
    Send_Time();
    size_t end =
        assert_commands(0, "ntptime", OPEN("3"), SECONDS("248 4 251 106 0 0"), "ntptime", NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_int_equal(Trans_count, 3);
    vplat_fail_command("ntptime");
    Send_Time();
    assert_int_equal(vplat_cmd_count(), end + 3);
    assert_int_equal(Trans_count, 3);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_worked_example, handover_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_worked_example_from_board_clock, handover_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_second_rolls_over, handover_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_wraps_to_1, handover_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_leap_unknown, handover_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_seconds_beyond_32_bits, handover_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_time_to_hex_text, handover_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_slots_untouched_by_other_slot, handover_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_space_padded_day_and_hour, handover_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_ntptime_failures_leave_slots, handover_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_register_command_cannot_start, handover_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_close_fails_after_255, handover_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_second_reading_fails, handover_board, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
