/* Status page writer (Part 4.3). */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/shared.h"
#include "statistics/Statistic.h"
#include "test_support.h"

#define PAGE "/ramcache/zarvent/ntp_data.txt"
#define LOCK "/ramcache/zarvent/lock"
#define RM_LOCK "rm /ramcache/zarvent/lock"
#define EMUL "/usr/bin/Zarvent/nmea_emul_flag.txt"

/* Puts a zero-terminated text into Command_Out at pos. */
static void put_text(size_t pos, const char *text)
{
    command_out_put(pos, text, strlen(text) + 1);
}

/* Every global the page reads or writes, as at start-up; then the
 * Command_Out texts of a running appliance at 2026-11-16 13:27:46. */
static int page_setup(void **state)
{
    board_setup(state);
    memset(Command_Out, 0, sizeof Command_Out);
    memset(&Stat_Out, 0, sizeof Stat_Out);
    z_prev = 0.0f;
    dz_prev = 0.0f;
    Jitter = 0;
    Sync_En = 0;
    atomic_store(&Alarm, 0);
    timeinfo_refresh(T_EXAMPLE);
    put_text(CO_REF_NAME, "GPS+GLONASS");
    put_text(CO_OFFSET, "1000");
    command_out_set_byte(CO_ANTENNA, 7);
    put_text(CO_NOW, "Nov 16 2026 13:27:46.121");
    put_text(CO_EVENT, "Nov  6 2026  9:05:00.250");
    return 0;
}

/* The page as a string (caller frees). */
static char *page_text(void)
{
    char *text = vplat_read_file(PAGE);
    assert_non_null(text);
    return text;
}

/* Asserts that the page holds the given line (with its newline) exactly. */
static void assert_page_has(const char *line)
{
    char *text = page_text();
    if (strstr(text, line) == NULL)
        fail_msg("page lacks \"%s\":\n%s", line, text);
    free(text);
}

static const char GOLDEN_PAGE[] = "<b>UTC</b>\t\t<b>Date:</b>\tNov 16 2026\n"
                                  "\t\t<b>Time:</b>\t13:27:46\n"
                                  "<b>Current Offset [ns]:</b>\t1000\n"
                                  "<b>Mean Offset [ns]:</b>\t3\n"
                                  "<b>Jitter [ns]:</b>\t\t55\n"
                                  "<b>Reference time:</b>    GPS+GLONASS\n"
                                  "<b>Uptime from:</b> \t<b>Date:</b>\tNov  6 2026\n"
                                  "\t\t<b>Time:</b>\t 9:05:00\n"
                                  "\n"
                                  "<b>PTP Packets:\t\tLast\tAverage</b>\n"
                                  "<b>Request per Second:</b>\t17\t16.50\n"
                                  "<b>Response per Second:</b>\t21\t20.75\n"
                                  "<b>Request per Minute:</b>\t1020\t1019.25\n"
                                  "<b>Response per Minute:</b>\t1260\t1259.50\n"
                                  "<b>Request per Hour:</b>\t5000000000\t61200.00\n"
                                  "<b>Response per Hour:</b>\t61234\t61233.75\n"
                                  "<b>Request per Day:</b>\t1468800\n"
                                  "<b>Response per Day:</b>\t18446744073709551615\n"
                                  "\n"
                                  "<b>Antenna:</b> Ok\n"
                                  "<b>GPS Emulation:</b>\tOn\n"
                                  "Nov 16 2026\n"
                                  "13:27:46\n";

/* Statistics of the golden page at 13:27:46 on the 16th, with decoys in the
 * neighbouring slots. */
static void golden_statistics(void)
{
    Stat_Out.ReqSec[45] = 4294967296ULL + 17; /* low 32 bits printed */
    Stat_Out.ReqSec[46] = 999;
    Stat_Out.ReqSec[44] = 888;
    Stat_Out.RespSec[45] = 21;
    Stat_Out.RespSec[46] = 998;
    Stat_Out.ReqAvg = 16.5f;
    Stat_Out.RespAvg = 20.75f;
    Stat_Out.ReqMin[807] = 1020;
    Stat_Out.ReqMin[806] = 1;
    Stat_Out.ReqMin[808] = 2;
    Stat_Out.RespMin[807] = 3 * 4294967296ULL + 1260;
    Stat_Out.ReqMinSum = 1019.25f;
    Stat_Out.RespMinSum = 1259.5f;
    Stat_Out.ReqHour[13] = 5000000000ULL; /* all 64 bits printed */
    Stat_Out.ReqHour[12] = 3;
    Stat_Out.RespHour[13] = 61234;
    Stat_Out.ReqHourSum = 61200.0f;
    Stat_Out.RespHourSum = 61233.75f;
    Stat_Out.ReqDay[16] = 1468800;
    Stat_Out.ReqDay[15] = 4;
    Stat_Out.ReqDay[17] = 5;
    Stat_Out.RespDay[16] = UINT64_MAX;
}

static void test_golden_page(void **state)
{
    (void)state;
    /* A whole page, byte for byte; the first filter cycle with x = 1000
     * gives M = 3 and J = 55 (E4.3-2 first cycle: trunc(b x) = 3). */
    golden_statistics();
    Sync_En = 1;
    vplat_write_file(EMUL, "1\n");
    assert_int_equal(FileWrite(), 0);
    assert_file(PAGE, GOLDEN_PAGE);
    assert_int_equal(Jitter, 55);
    assert_true(z_prev == 3.1317641735076904f);
    assert_true(dz_prev == 3112.178955078125f);
    size_t i = assert_commands(0, RM_LOCK, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_string_equal(vplat_cmd_mode(0), "r");
    assert_false(vplat_exists(LOCK));
}

static void test_filter_second_and_third_cycle(void **state)
{
    (void)state;
    /* The float and double steps of the filter, two cycles further. */
    Sync_En = 1;
    FileWrite();
    FileWrite();
    assert_page_has("<b>Mean Offset [ns]:</b>\t9\n<b>Jitter [ns]:</b>\t\t96\n");
    assert_true(z_prev == 6.243912696838379f);
    assert_true(dz_prev == 6166.00048828125f);
    FileWrite();
    assert_page_has("<b>Mean Offset [ns]:</b>\t15\n<b>Jitter [ns]:</b>\t\t123\n");
    assert_true(z_prev == 9.336567878723145f);
    assert_true(dz_prev == 9162.3154296875f);
    assert_int_equal(Jitter, 123);
}

static void test_negative_offset_truncates_toward_zero(void **state)
{
    (void)state;
    /* Step 5.7: M rounds toward zero: b x (-2500) = -7.83 gives -7. */
    Sync_En = 1;
    put_text(CO_OFFSET, "-2500");
    FileWrite();
    assert_page_has("<b>Current Offset [ns]:</b>\t-2500\n<b>Mean Offset [ns]:</b>\t-7\n"
                    "<b>Jitter [ns]:</b>\t\t139\n");
}

static void test_not_synchronised(void **state)
{
    (void)state;
    /* E4.3-1: Sync_En not 1: mean 0, the shared jitter unchanged, filter
     * states kept. */
    static const int32_t values[] = {0, 2, -1};
    for (size_t k = 0; k < sizeof values / sizeof values[0]; k++) {
        Sync_En = values[k];
        z_prev = 812.5f;
        dz_prev = 96.25f;
        Jitter = 77;
        put_text(CO_OFFSET, "-123");
        assert_int_equal(FileWrite(), 0);
        assert_page_has("<b>Current Offset [ns]:</b>\t-123\n<b>Mean Offset [ns]:</b>\t0\n"
                        "<b>Jitter [ns]:</b>\t\t77\n");
        assert_true(z_prev == 812.5f);
        assert_true(dz_prev == 96.25f);
        assert_int_equal(Jitter, 77);
    }
}

static void test_constant_offset_from_start(void **state)
{
    (void)state;
    /* E4.3-2: constant x = 100000 from start-up: the first cycle prints
     * trunc(b x) = 313, later cycles approach x from below. */
    Sync_En = 1;
    put_text(CO_OFFSET, "100000");
    FileWrite();
    assert_page_has("<b>Mean Offset [ns]:</b>\t313\n<b>Jitter [ns]:</b>\t\t5578\n");
    long previous = 313;
    for (int cycle = 2; cycle <= 3000; cycle++) {
        FileWrite();
        char *text = page_text();
        const char *p = strstr(text, "<b>Mean Offset [ns]:</b>\t");
        assert_non_null(p);
        long mean = strtol(p + strlen("<b>Mean Offset [ns]:</b>\t"), NULL, 10);
        free(text);
        assert_true(mean >= previous);
        assert_true(mean <= 100000);
        previous = mean;
        if (cycle == 159)
            assert_true(mean > 55000 && mean < 75000); /* about one time constant */
    }
    assert_true(previous >= 99990);
}

static void test_last_second_at_second_0(void **state)
{
    (void)state;
    /* E4.3-3: at second 0 the "Last" per-second figures are slot 59. */
    timeinfo_refresh(utc_time(2026, 11, 16, 13, 28, 0));
    Stat_Out.ReqSec[59] = 11;
    Stat_Out.RespSec[59] = 12;
    Stat_Out.ReqSec[0] = 98;
    Stat_Out.RespSec[0] = 99;
    FileWrite();
    assert_page_has("<b>Request per Second:</b>\t11\t0.00\n"
                    "<b>Response per Second:</b>\t12\t0.00\n");
    /* At second 59 they are slot 58. */
    timeinfo_refresh(utc_time(2026, 11, 16, 13, 28, 59));
    Stat_Out.ReqSec[58] = 58;
    Stat_Out.RespSec[58] = 57;
    FileWrite();
    assert_page_has("<b>Request per Second:</b>\t58\t0.00\n"
                    "<b>Response per Second:</b>\t57\t0.00\n");
}

static void test_slots_of_midnight_on_the_first(void **state)
{
    (void)state;
    /* Step 9 at 00:00:00 on the 1st: minute slot 0, hour slot 0, day slot 1. */
    timeinfo_refresh(utc_time(2026, 12, 1, 0, 0, 0));
    Stat_Out.ReqMin[0] = 31;
    Stat_Out.RespMin[0] = 32;
    Stat_Out.ReqHour[0] = 33;
    Stat_Out.RespHour[0] = 34;
    Stat_Out.ReqDay[1] = 35;
    Stat_Out.RespDay[1] = 36;
    Stat_Out.ReqDay[0] = 1000;
    Stat_Out.ReqHourSum = 0.125f; /* prints as 0.12: glibc rounds the exact half to even */
    FileWrite();
    assert_page_has("<b>Request per Minute:</b>\t31\t0.00\n<b>Response per Minute:</b>\t32\t0.00\n"
                    "<b>Request per Hour:</b>\t33\t0.12\n<b>Response per Hour:</b>\t34\t0.00\n"
                    "<b>Request per Day:</b>\t35\n<b>Response per Day:</b>\t36\n");
}

static void test_antenna_texts(void **state)
{
    (void)state;
    /* E4.3-4 and the three known codes. */
    static const struct {
        unsigned char code;
        const char *line;
    } cases[] = {
        {5, "\n<b>Antenna:</b> Short\n<b>GPS"},    {6, "\n<b>Antenna:</b> Off\n<b>GPS"},
        {7, "\n<b>Antenna:</b> Ok\n<b>GPS"},       {4, "\n<b>Antenna:</b>       \n<b>GPS"},
        {0, "\n<b>Antenna:</b>       \n<b>GPS"},   {255, "\n<b>Antenna:</b>       \n<b>GPS"},
        {'7', "\n<b>Antenna:</b>       \n<b>GPS"},
    };
    for (size_t k = 0; k < sizeof cases / sizeof cases[0]; k++) {
        command_out_set_byte(CO_ANTENNA, cases[k].code);
        FileWrite();
        assert_page_has(cases[k].line);
    }
}

static void test_emulation_flag(void **state)
{
    (void)state;
    /* E4.3-5: only the first character is read; "1" is On, else Off. */
    static const struct {
        const char *content; /* NULL: no file */
        int on;
    } cases[] = {
        {"1\n", 1}, {"1", 1},  {"1abc", 1}, {"12", 1}, {"10", 1},  {"0\n", 0},
        {"", 0},    {"x1", 0}, {" 1", 0},   {"2", 0},  {"\n1", 0}, {NULL, 0},
    };
    for (size_t k = 0; k < sizeof cases / sizeof cases[0]; k++) {
        if (cases[k].content)
            vplat_write_file(EMUL, cases[k].content);
        else
            unlink(vplat_path(EMUL));
        FileWrite();
        assert_page_has(cases[k].on ? "\n<b>GPS Emulation:</b>\tOn\n"
                                    : "\n<b>GPS Emulation:</b>\tOff\n");
    }
}

static void test_page_ends_with_date_and_time(void **state)
{
    (void)state;
    /* E4.3-6: the last lines are the current date and time, after the GPS
     * emulation line; step 12 copies them out of Command_Out again. */
    put_text(CO_NOW, "Dec  1 2026  0:00:00.004");
    FileWrite();
    char *text = page_text();
    const char *tail = "<b>GPS Emulation:</b>\tOff\nDec  1 2026\n 0:00:00\n";
    size_t len = strlen(text), tail_len = strlen(tail);
    assert_true(len > tail_len);
    assert_string_equal(text + len - tail_len, tail);
    assert_int_equal(
        strncmp(text, "<b>UTC</b>\t\t<b>Date:</b>\tDec  1 2026\n\t\t<b>Time:</b>\t 0:00:00\n",
                strlen("<b>UTC</b>\t\t<b>Date:</b>\tDec  1 2026\n\t\t<b>Time:</b>\t 0:00:00\n")),
        0);
    free(text);
}

static void test_alarm_line(void **state)
{
    (void)state;
    /* Step 7: "<b>Alarm at:</b> " while Alarm is not zero. */
    atomic_store(&Alarm, 1);
    put_text(CO_EVENT, "Nov 16 2026 13:20:11.500");
    FileWrite();
    assert_page_has(
        "\n<b>Alarm at:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:20:11\n\n");
    atomic_store(&Alarm, 0);
    FileWrite();
    assert_page_has("\n<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n");
}

static void test_reference_name(void **state)
{
    (void)state;
    /* E1.2-1 (status page half): an empty reference name before the
     * supervision thread's first loop. */
    memset(Command_Out, 0, 18);
    FileWrite();
    assert_page_has("\n<b>Reference time:</b>    \n<b>Uptime from:</b> ");
    put_text(CO_REF_NAME, "GPS+GLONASS 1PPS");
    FileWrite();
    assert_page_has("\n<b>Reference time:</b>    GPS+GLONASS 1PPS\n");
    /* At most 17 characters: the name ends at position 17 whatever follows. */
    command_out_put(CO_REF_NAME, "ABCDEFGHIJKLMNOPQRSTUVWXYZ", 26);
    FileWrite();
    assert_page_has("\n<b>Reference time:</b>    ABCDEFGHIJKLMNOPQ\n");
}

static void test_offset_text(void **state)
{
    (void)state;
    /* Step 4: strtol base 10 of the text at 53, at most 9 characters. */
    command_out_put(CO_OFFSET, "123456789012", 12);
    FileWrite();
    assert_page_has("<b>Current Offset [ns]:</b>\t123456789\n");
    put_text(CO_OFFSET, "");
    FileWrite();
    assert_page_has("<b>Current Offset [ns]:</b>\t0\n");
    put_text(CO_OFFSET, "-99999999");
    FileWrite();
    assert_page_has("<b>Current Offset [ns]:</b>\t-99999999\n");
}

static void test_lock_created_and_removed(void **state)
{
    (void)state;
    /* Steps 1 and 13: without a working rm the lock stays, showing that it
     * was created; with it, "rm /ramcache/zarvent/lock" is the only command. */
    vplat_tool_absent("rm", 1);
    FileWrite();
    assert_file(LOCK, "");
    vplat_tool_absent("rm", 0);
    vplat_cmd_clear();
    FileWrite();
    assert_commands(0, RM_LOCK, NULL);
    assert_int_equal(vplat_cmd_count(), 1);
    assert_false(vplat_exists(LOCK));
}

static void call_file_write(void *arg)
{
    *(int *)arg = FileWrite();
}

static void test_page_cannot_be_opened(void **state)
{
    (void)state;
    /* Step 2 and Failure handling: perror("Cannot open file\n"), nothing
     * written, filter not run, lock left in place, no rm. */
    assert_int_equal(mkdir(vplat_path(PAGE), 0755), 0);
    Sync_En = 1;
    z_prev = 5.5f;
    dz_prev = 6.5f;
    Jitter = 9;
    int result = -1;
    char *err = capture_stderr(call_file_write, &result);
    assert_int_equal(result, 0);
    char expected[128];
    snprintf(expected, sizeof expected, "Cannot open file\n: %s\n", strerror(EISDIR));
    assert_string_equal(err, expected);
    free(err);
    assert_true(z_prev == 5.5f);
    assert_true(dz_prev == 6.5f);
    assert_int_equal(Jitter, 9);
    assert_file(LOCK, "");
    assert_int_equal(vplat_cmd_count(), 0);
}

static void test_lock_cannot_be_created(void **state)
{
    (void)state;
    /* Part 4.3 "Left to the implementer", our choice: the page is written
     * all the same and the rm still runs. */
    assert_int_equal(mkdir(vplat_path(LOCK), 0755), 0);
    golden_statistics();
    Sync_En = 1;
    vplat_write_file(EMUL, "1");
    FileWrite();
    assert_file(PAGE, GOLDEN_PAGE);
    assert_commands(0, RM_LOCK, NULL);
}

static void test_no_ramdisk(void **state)
{
    (void)state;
    /* Neither the lock nor the page can be made: only the perror text. */
    rmdir(vplat_path("/ramcache/zarvent"));
    int result = -1;
    char *err = capture_stderr(call_file_write, &result);
    char expected[128];
    snprintf(expected, sizeof expected, "Cannot open file\n: %s\n", strerror(ENOENT));
    assert_string_equal(err, expected);
    free(err);
    assert_int_equal(vplat_cmd_count(), 0);
}

int main(void)
{
#define T(f) cmocka_unit_test_setup_teardown(f, page_setup, board_teardown)
    const struct CMUnitTest tests[] = {
        T(test_golden_page),
        T(test_filter_second_and_third_cycle),
        T(test_negative_offset_truncates_toward_zero),
        T(test_not_synchronised),
        T(test_constant_offset_from_start),
        T(test_last_second_at_second_0),
        T(test_slots_of_midnight_on_the_first),
        T(test_antenna_texts),
        T(test_emulation_flag),
        T(test_page_ends_with_date_and_time),
        T(test_alarm_line),
        T(test_reference_name),
        T(test_offset_text),
        T(test_lock_created_and_removed),
        T(test_page_cannot_be_opened),
        T(test_lock_cannot_be_created),
        T(test_no_ramdisk),
    };
#undef T
    return cmocka_run_group_tests(tests, NULL, NULL);
}
