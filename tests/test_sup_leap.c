/* Leap-second offset file (Part 5.5): Parse_File. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "daemon/shared.h"
#include "supervision/ThreadLED.h"
#include "test_support.h"

#define LIST "/leap-seconds.list"
#define TEMP "/usr/bin/Zarvent/temp"

/* The tail of a list in the published format, with tabs (as NIST prints it). */
static const char NIST_HEAD[] = "#\tleap-seconds.list\n"
                                "#\tUpdated through IERS Bulletin C 69\n"
                                "#$\t 3945196800\n"
                                "#@\t 3960057600\n"
                                "#\n"
                                "2272060800\t10\t# 1 Jan 1972\n"
                                "2287785600\t11\t# 1 Jul 1972\n"
                                "3644697600\t36\t# 1 Jul 2015\n";
static const char LAST_DATA[] = "3692217600\t37\t# 1 Jan 2017\n";
static const char NIST_TAIL[] = "#\n"
                                "#\tA hash of the data lines follows.\n"
                                "#h\t16edd0f0 3666784f 37db6bdd e74ced87 59af48f1\n";

static int setup(void **state)
{
    board_setup(state);
    atomic_store(&Leap_Time, 0);
    return 0;
}

/* The list written whole to the board's /leap-seconds.list. */
static void write_list(const char *text)
{
    vplat_write_file(LIST, text);
}

/* Keeps "temp" in place so that its content can be checked: "rm temp"
 * starts and prints nothing, but removes nothing. */
static void keep_temp(void)
{
    vplat_on_command("rm temp", "");
}

static void assert_tail_and_rm(void)
{
    assert_commands(0, "tail -n 1 temp", "rm temp", NULL);
    assert_int_equal(vplat_cmd_count(), 2);
    assert_string_equal(vplat_cmd_mode(0), "r");
    assert_string_equal(vplat_cmd_mode(1), "w");
}

static void test_worked_example_nist_tabs(void **state)
{
    (void)state;
    /* E5.5-1: the last data line is 3692217600, tab, 37, tab, # 1 Jan 2017,
     * followed only by comment lines. */
    char list[1024];
    snprintf(list, sizeof list, "%s%s%s", NIST_HEAD, LAST_DATA, NIST_TAIL);
    write_list(list);
    assert_int_equal(Parse_File(), 37);
    assert_tail_and_rm();
    /* The scratch file is gone afterwards. */
    assert_false(vplat_exists(TEMP));
}

static void test_temp_holds_the_data_lines(void **state)
{
    (void)state;
    /* E5.5-1, Part 5.5 step 4: temp receives the non-comment lines; the
     * reads after the end repeat the last line, a comment, so nothing more. */
    char list[1024];
    snprintf(list, sizeof list, "%s%s%s", NIST_HEAD, LAST_DATA, NIST_TAIL);
    write_list(list);
    keep_temp();
    assert_int_equal(Parse_File(), 37);
    assert_file(TEMP, "2272060800\t10\t# 1 Jan 1972\n"
                      "2287785600\t11\t# 1 Jul 1972\n"
                      "3644697600\t36\t# 1 Jul 2015\n"
                      "3692217600\t37\t# 1 Jan 2017\n");
}

static void test_list_ending_in_data_line_repeats_it(void **state)
{
    (void)state;
    /* Part 5.5 step 4: the 238 reads are counted, not stopped at the end;
     * a list ending in a data line copies that line again in each of the
     * remaining repetitions. Three lines read, then 235 reads at the end:
     * the last line is in temp 236 times. */
    write_list("#\tcomment\n"
               "3644697600\t36\t# 1 Jul 2015\n"
               "3692217600\t37\t# 1 Jan 2017\n");
    keep_temp();
    assert_int_equal(Parse_File(), 37);
    char *temp = vplat_read_file(TEMP);
    assert_non_null(temp);
    size_t first = strlen("3644697600\t36\t# 1 Jul 2015\n");
    assert_int_equal(strlen(temp), first + 236 * strlen(LAST_DATA));
    assert_memory_equal(temp, "3644697600\t36\t# 1 Jul 2015\n", first);
    for (size_t i = 0; i < 236; i++)
        assert_memory_equal(temp + first + i * strlen(LAST_DATA), LAST_DATA, strlen(LAST_DATA));
    free(temp);
}

static void test_debian_tzdata_list(void **state)
{
    (void)state;
    /* E5.5-1 on the real list of Debian's tzdata (blank-separated columns:
     * "%i" skips the blanks in front of the offset at character 11). */
    FILE *f = fopen("/usr/share/zoneinfo/leap-seconds.list", "r");
    if (f == NULL)
        skip();
    static char list[65536];
    size_t got = fread(list, 1, sizeof list - 1, f);
    fclose(f);
    list[got] = '\0';
    assert_true(got > 0);
    write_list(list);
    assert_int_equal(Parse_File(), 37);
    assert_tail_and_rm();
    assert_false(vplat_exists(TEMP));
}

static void test_more_than_238_lines(void **state)
{
    (void)state;
    /* E5.5-2: line 230 is the last data line among the first 238 (offset
     * 36); lines 231 to 238 are comments; lines 239 on hold offset 37 and
     * are never read. */
    static char list[32768];
    size_t len = 0;
    for (int i = 1; i <= 300; i++) {
        const char *line;
        if (i < 230)
            line = "#\tfiller\n";
        else if (i == 230)
            line = "3644697600\t36\t# 1 Jul 2015\n";
        else if (i <= 238)
            line = "#\tcomment\n";
        else
            line = LAST_DATA;
        len += (size_t)snprintf(list + len, sizeof list - len, "%s", line);
    }
    write_list(list);
    keep_temp();
    assert_int_equal(Parse_File(), 36);
    assert_file(TEMP, "3644697600\t36\t# 1 Jul 2015\n");
}

static void test_238_data_lines_of_many(void **state)
{
    (void)state;
    /* E5.5-2: every line a data line, line i holding offset i: the result is
     * the offset of line 238. */
    static char list[32768];
    size_t len = 0;
    for (int i = 1; i <= 250; i++)
        len += (size_t)snprintf(list + len, sizeof list - len, "%010d\t%d\t# line %d\n",
                                1000000000 + i, i, i);
    write_list(list);
    assert_int_equal(Parse_File(), 238);
    assert_false(vplat_exists(TEMP));
}

static void test_no_data_line(void **state)
{
    (void)state;
    /* E5.5-3: no data line in the first 238 lines: temp stays empty, tail
     * prints nothing, the result is 0. */
    write_list("#\tleap-seconds.list\n#\tno data here\n#h\t0 0 0 0 0\n");
    keep_temp();
    assert_int_equal(Parse_File(), 0);
    assert_file(TEMP, "");
    assert_tail_and_rm();
}

static void test_no_data_line_temp_removed(void **state)
{
    (void)state;
    /* E5.5-3: and with the real rm, temp is removed afterwards. */
    write_list("#\tonly comments\n");
    assert_int_equal(Parse_File(), 0);
    assert_tail_and_rm();
    assert_false(vplat_exists(TEMP));
}

static void test_empty_list(void **state)
{
    (void)state;
    /* E5.5-3: an empty list: nothing copied, result 0. */
    write_list("");
    keep_temp();
    assert_int_equal(Parse_File(), 0);
    assert_file(TEMP, "");
}

static void test_missing_list(void **state)
{
    (void)state;
    /* Part 5.5 failure handling: a missing list gives -1 before anything is
     * written; no command runs and no scratch file is made. */
    assert_int_equal(Parse_File(), -1);
    assert_int_equal(vplat_cmd_count(), 0);
    assert_false(vplat_exists(TEMP));
}

/* 1 when a file can be created in the board's working directory. */
static int workdir_writable(void)
{
    char probe[1100];
    snprintf(probe, sizeof probe, "%s", vplat_path("/usr/bin/Zarvent/probe"));
    FILE *f = fopen(probe, "w");
    if (f == NULL)
        return 0;
    fclose(f);
    unlink(probe);
    return 1;
}

static void test_workdir_not_writable(void **state)
{
    (void)state;
    /* E5.5-4: with the working directory not writable, the result is -1. */
    char list[1024];
    snprintf(list, sizeof list, "%s%s%s", NIST_HEAD, LAST_DATA, NIST_TAIL);
    write_list(list);
    vplat_chmod("/usr/bin/Zarvent", 0);
    int dropped = drop_dac_override() == 0;
    if (workdir_writable()) {
        if (dropped)
            restore_caps();
        vplat_chmod("/usr/bin/Zarvent", 1);
        skip(); /* permission checks cannot be made to apply here */
    }
    int result = Parse_File();
    if (dropped)
        restore_caps();
    vplat_chmod("/usr/bin/Zarvent", 1);
    assert_int_equal(result, -1);
    assert_int_equal(vplat_cmd_count(), 0);
    assert_false(vplat_exists(TEMP));
}

static void test_tail_cannot_start(void **state)
{
    (void)state;
    /* Part 5.5 step 6: the command cannot be started: -1, and temp may be
     * left behind (failure handling). */
    char list[1024];
    snprintf(list, sizeof list, "%s%s%s", NIST_HEAD, LAST_DATA, NIST_TAIL);
    write_list(list);
    vplat_fail_command("tail -n 1 temp");
    assert_int_equal(Parse_File(), -1);
    assert_commands(0, "tail -n 1 temp", NULL);
    assert_int_equal(vplat_cmd_count(), 1);
    assert_true(vplat_exists(TEMP));
}

static void test_rm_cannot_start(void **state)
{
    (void)state;
    /* Part 5.5 step 9: "rm temp" cannot be started: -1. */
    char list[1024];
    snprintf(list, sizeof list, "%s%s%s", NIST_HEAD, LAST_DATA, NIST_TAIL);
    write_list(list);
    vplat_fail_command("rm temp");
    assert_int_equal(Parse_File(), -1);
    assert_tail_and_rm();
}

static void test_tail_prints_nothing_or_garbage(void **state)
{
    (void)state;
    /* Part 5.5 steps 6 and 7: whatever tail prints, the number is taken
     * from character 11 of its line or the result stays 0. */
    write_list(LAST_DATA);
    vplat_on_command_once("tail -n 1 temp", "");
    assert_int_equal(Parse_File(), 0);
    vplat_on_command_once("tail -n 1 temp", "short\n");
    assert_int_equal(Parse_File(), 0);
    vplat_on_command_once("tail -n 1 temp", "0123456789\t\n");
    assert_int_equal(Parse_File(), 0);
    vplat_on_command_once("tail -n 1 temp", "\x01\xff\xfe garbage \x7f binary junk without end");
    assert_int_equal(Parse_File(), 0);
    /* An overlong line: only its first 99 characters are read. */
    static char longline[400];
    memset(longline, '7', 300);
    memcpy(longline, "3692217600\t", 11);
    longline[300] = '\0';
    vplat_on_command_once("tail -n 1 temp", longline);
    assert_int_equal(Parse_File(), 0); /* the 88 digits overflow an int */
    assert_int_equal(vplat_cmd_occurrences("tail -n 1 temp"), 5);
    assert_int_equal(vplat_cmd_occurrences("rm temp"), 5);
}

static void test_percent_i_conversion(void **state)
{
    (void)state;
    /* Part 5.5 step 7: "%i": a leading 0x reads hexadecimal, a leading 0
     * octal; nothing at character 11 leaves 0. */
    write_list("3692217600\t0x25\t# hex\n");
    assert_int_equal(Parse_File(), 37);
    write_list("3692217600\t045\t# octal\n");
    assert_int_equal(Parse_File(), 37);
    write_list("3692217600\t-1\t# negative\n");
    assert_int_equal(Parse_File(), -1);
    write_list("3692217600\tthirty-seven\n");
    assert_int_equal(Parse_File(), 0);
    write_list("36922176\n");
    assert_int_equal(Parse_File(), 0);
    write_list("3692217600\t99999999999\t# too large\n");
    assert_int_equal(Parse_File(), 0);
}

static void test_overlong_comment_read_in_pieces(void **state)
{
    (void)state;
    /* Part 5.5 failure handling: a line longer than 99 characters is read
     * in pieces; a piece that does not begin with "#" is copied like a line.
     * Here the rest of a long comment becomes the last copied line, which
     * holds no number at character 11. */
    static char list[1024];
    size_t len = (size_t)snprintf(list, sizeof list, "%s#", LAST_DATA);
    memset(list + len, 'x', 149);
    len += 149;
    memcpy(list + len, "\n#end\n", 7);
    write_list(list);
    keep_temp();
    assert_int_equal(Parse_File(), 0);
    char expected[256];
    size_t e = (size_t)snprintf(expected, sizeof expected, "%s", LAST_DATA);
    /* The first piece holds "#" and 98 x; the second the other 51 x and the newline. */
    memset(expected + e, 'x', 51);
    memcpy(expected + e + 51, "\n", 2);
    assert_file(TEMP, expected);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_worked_example_nist_tabs, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_temp_holds_the_data_lines, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_list_ending_in_data_line_repeats_it, setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_debian_tzdata_list, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_more_than_238_lines, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_238_data_lines_of_many, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_no_data_line, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_no_data_line_temp_removed, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_empty_list, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_missing_list, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_workdir_not_writable, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_tail_cannot_start, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_rm_cannot_start, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_tail_prints_nothing_or_garbage, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_percent_i_conversion, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_overlong_comment_read_in_pieces, setup,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
