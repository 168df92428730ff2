/* Status page writer (Part 4.3): FileWrite over Command_Out, Stat_Out and
 * the offset filter. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/shared.h"
#include "platform/platform.h"
#include "statistics/Statistic.h"
#include "test_support.h"

#define PAGE "/ramcache/zarvent/ntp_data.txt"
#define PAGE_LOCK "/ramcache/zarvent/lock"
#define EMUL_FILE "/usr/bin/Zarvent/nmea_emul_flag.txt"

/* Places a zero-terminated text at a Command_Out position. */
static void put_text(size_t pos, const char *text)
{
    command_out_put(pos, text, strlen(text) + 1);
}

/* The slots the cycle and supervision threads would have filled by now. */
static void fill_command_out(const char *offset, const char *reference, unsigned char antenna)
{
    put_text(CO_NOW, "Nov 16 2026 13:27:46.121");
    put_text(CO_EVENT, "Nov 16 2026 13:20:01.500");
    put_text(CO_OFFSET, offset);
    put_text(CO_REF_NAME, reference);
    command_out_set_byte(CO_ANTENNA, antenna);
}

/* The value printed after label on the page (strtol of what follows it). */
static long page_value(const char *label)
{
    char *page = vplat_read_file(PAGE);
    assert_non_null(page);
    const char *p = strstr(page, label);
    assert_non_null(p);
    long v = strtol(p + strlen(label), NULL, 10);
    free(page);
    return v;
}

/* The packet statistics of the golden page: two cycles at 13:27:45 and
 * 13:27:46 with known register readings, over slots prefilled with values
 * that show the 32- and 64-bit columns. */
static void golden_statistics(void)
{
    Stat_Out.ReqMin[13 * 60 + 27] = 0x100000005ULL; /* printed: low 32 bits, 5 */
    Stat_Out.RespMin[13 * 60 + 27] = 4321;
    Stat_Out.ReqHour[13] = 4294967303ULL; /* printed whole */
    Stat_Out.RespHour[13] = 98765;
    Stat_Out.ReqDay[16] = 5000000000ULL;
    Stat_Out.RespDay[16] = 42;
    Stat_Out.ReqHourSum = 12345.5f;
    Stat_Out.RespHourSum = 0.75f;
    vplat_reg_set(24, 16);
    vplat_reg_set(26, 32);
    vplat_set_now_us((int64_t)utc_time(2026, 11, 16, 13, 27, 45) * 1000000);
    Stat_read();
    vplat_reg_set(24, 0x0108);
    vplat_reg_set(26, 4);
    vplat_set_now_us((int64_t)utc_time(2026, 11, 16, 13, 27, 46) * 1000000);
    Stat_read();
}

static void test_golden_page(void **state)
{
    (void)state;
    /* The whole page: reference not in use, no alarm, emulation on. */
    golden_statistics();
    fill_command_out("-1234", "GPS+GLONASS", 7);
    Jitter = 37;
    vplat_write_file(EMUL_FILE, "1\n");
    vplat_cmd_clear();
    assert_int_equal(FileWrite(), 0);
    assert_file(PAGE, "<b>UTC</b>\t\t<b>Date:</b>\tNov 16 2026\n"
                      "\t\t<b>Time:</b>\t13:27:46\n"
                      "<b>Current Offset [ns]:</b>\t-1234\n"
                      "<b>Mean Offset [ns]:</b>\t0\n"
                      "<b>Jitter [ns]:</b>\t\t37\n"
                      "<b>Reference time:</b>    GPS+GLONASS\n"
                      "<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n"
                      "\t\t<b>Time:</b>\t13:20:01\n"
                      "\n"
                      "<b>PTP Packets:\t\tLast\tAverage</b>\n"
                      "<b>Request per Second:</b>\t16\t136.00\n"
                      "<b>Response per Second:</b>\t32\t10.00\n"
                      "<b>Request per Minute:</b>\t5\t280.00\n"
                      "<b>Response per Minute:</b>\t4321\t36.00\n"
                      "<b>Request per Hour:</b>\t4294967303\t12345.50\n"
                      "<b>Response per Hour:</b>\t98765\t0.75\n"
                      "<b>Request per Day:</b>\t5000000000\n"
                      "<b>Response per Day:</b>\t42\n"
                      "\n"
                      "<b>Antenna:</b> Ok\n"
                      "<b>GPS Emulation:</b>\tOn\n"
                      "Nov 16 2026\n"
                      "13:27:46\n");
    /* Step 13: the lock is removed by its shell command, the only command run. */
    size_t end = assert_commands(0, "rm /ramcache/zarvent/lock", NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_false(vplat_exists(PAGE_LOCK));
    assert_int_equal(Jitter, 37);
}

static void test_golden_page_alarm_and_filter(void **state)
{
    (void)state;
    /* The whole page: reference in use (first filter cycle, x = -1234: M is
     * b*x = -3.86 toward zero, J = 68), alarm active, antenna short,
     * emulation file missing. */
    golden_statistics();
    fill_command_out("-1234", "GPS+GLONASS 1PPS", 5);
    Sync_En = 1;
    atomic_store(&Alarm, 1);
    assert_int_equal(FileWrite(), 0);
    assert_file(PAGE, "<b>UTC</b>\t\t<b>Date:</b>\tNov 16 2026\n"
                      "\t\t<b>Time:</b>\t13:27:46\n"
                      "<b>Current Offset [ns]:</b>\t-1234\n"
                      "<b>Mean Offset [ns]:</b>\t-3\n"
                      "<b>Jitter [ns]:</b>\t\t68\n"
                      "<b>Reference time:</b>    GPS+GLONASS 1PPS\n"
                      "<b>Alarm at:</b> \t<b>Date:</b>\tNov 16 2026\n"
                      "\t\t<b>Time:</b>\t13:20:01\n"
                      "\n"
                      "<b>PTP Packets:\t\tLast\tAverage</b>\n"
                      "<b>Request per Second:</b>\t16\t136.00\n"
                      "<b>Response per Second:</b>\t32\t10.00\n"
                      "<b>Request per Minute:</b>\t5\t280.00\n"
                      "<b>Response per Minute:</b>\t4321\t36.00\n"
                      "<b>Request per Hour:</b>\t4294967303\t12345.50\n"
                      "<b>Response per Hour:</b>\t98765\t0.75\n"
                      "<b>Request per Day:</b>\t5000000000\n"
                      "<b>Response per Day:</b>\t42\n"
                      "\n"
                      "<b>Antenna:</b> Short\n"
                      "<b>GPS Emulation:</b>\tOff\n"
                      "Nov 16 2026\n"
                      "13:27:46\n");
    /* Step 5: the jitter and both filter states are kept. */
    assert_int_equal(Jitter, 68);
    assert_true(z_prev == (float)(0.0031317642291927056 * -1234.0));
    assert_true(dz_prev > 4739.08f && dz_prev < 4739.09f);

    /* Second cycle with the same offset (worked out from the filter steps). */
    assert_int_equal(FileWrite(), 0);
    assert_int_equal(page_value("<b>Mean Offset [ns]:</b>\t"), -11);
    assert_int_equal(page_value("<b>Jitter [ns]:</b>\t\t"), 118);
}

static void test_empty_reference_before_first_loop(void **state)
{
    (void)state;
    /* E1.2-1: before the supervision thread's first loop positions 0-17 are
     * empty: the reference line ends right after its four blanks. Nothing
     * else has been written either. */
    assert_int_equal(FileWrite(), 0);
    assert_file(PAGE, "<b>UTC</b>\t\t<b>Date:</b>\t\n"
                      "\t\t<b>Time:</b>\t\n"
                      "<b>Current Offset [ns]:</b>\t0\n"
                      "<b>Mean Offset [ns]:</b>\t0\n"
                      "<b>Jitter [ns]:</b>\t\t0\n"
                      "<b>Reference time:</b>    \n"
                      "<b>Uptime from:</b> \t<b>Date:</b>\t\n"
                      "\t\t<b>Time:</b>\t\n"
                      "\n"
                      "<b>PTP Packets:\t\tLast\tAverage</b>\n"
                      "<b>Request per Second:</b>\t0\t0.00\n"
                      "<b>Response per Second:</b>\t0\t0.00\n"
                      "<b>Request per Minute:</b>\t0\t0.00\n"
                      "<b>Response per Minute:</b>\t0\t0.00\n"
                      "<b>Request per Hour:</b>\t0\t0.00\n"
                      "<b>Response per Hour:</b>\t0\t0.00\n"
                      "<b>Request per Day:</b>\t0\n"
                      "<b>Response per Day:</b>\t0\n"
                      "\n"
                      "<b>Antenna:</b>       \n"
                      "<b>GPS Emulation:</b>\tOff\n"
                      "\n"
                      "\n");
}

static void test_reference_name_with_cycle_data(void **state)
{
    (void)state;
    /* E1.2-1 with the cycle's own slots already filled: the empty name still
     * prints as "<b>Reference time:</b>    \n". */
    fill_command_out("250", "", 7);
    FileWrite();
    char *page = vplat_read_file(PAGE);
    assert_non_null(strstr(page, "<b>Jitter [ns]:</b>\t\t0\n<b>Reference time:</b>    \n"
                                 "<b>Uptime from:</b> "));
    free(page);
}

static void test_filter_idle_without_reference(void **state)
{
    (void)state;
    /* E4.3-1: Sync_En not 1: mean 0, Jitter printed unchanged, states kept. */
    static const int32_t not_one[] = {0, 2, -1};
    for (size_t i = 0; i < sizeof not_one / sizeof not_one[0]; i++) {
        fill_command_out("5000", "NULL", 7);
        Sync_En = not_one[i];
        Jitter = 4321;
        z_prev = 12.5f;
        dz_prev = 3.25f;
        FileWrite();
        assert_int_equal(page_value("<b>Current Offset [ns]:</b>\t"), 5000);
        assert_int_equal(page_value("<b>Mean Offset [ns]:</b>\t"), 0);
        assert_int_equal(page_value("<b>Jitter [ns]:</b>\t\t"), 4321);
        assert_int_equal(Jitter, 4321);
        assert_true(z_prev == 12.5f);
        assert_true(dz_prev == 3.25f);
    }
}

static void test_filter_constant_offset(void **state)
{
    (void)state;
    /* E4.3-2: Sync_En 1 from start-up, constant x = 100000: the first mean is
     * the integer part of b*x (313.18), later ones approach x. */
    fill_command_out("100000", "GPS+GLONASS", 7);
    Sync_En = 1;
    FileWrite();
    assert_int_equal(page_value("<b>Mean Offset [ns]:</b>\t"), 313);
    assert_int_equal(page_value("<b>Jitter [ns]:</b>\t\t"), 5578);
    assert_int_equal(Jitter, 5578);
    FileWrite();
    assert_int_equal(page_value("<b>Mean Offset [ns]:</b>\t"), 937);
    long previous = 937;
    for (int c = 3; c <= 2000; c++) {
        FileWrite();
        if (c % 100 == 0) {
            long mean = page_value("<b>Mean Offset [ns]:</b>\t");
            assert_true(mean >= previous && mean <= 100000);
            previous = mean;
        }
    }
    /* After 2000 cycles (about 12.6 time constants) within one nanosecond. */
    assert_int_equal(previous, 99999);
    assert_int_equal(page_value("<b>Jitter [ns]:</b>\t\t"), 187);
}

static void test_filter_state_kept_when_reference_lost(void **state)
{
    (void)state;
    /* Part 4.3 step 5: the states are not reset when Sync_En falls; the filter
     * resumes from them when the reference is regained. */
    fill_command_out("-1234", "GPS+GLONASS", 7);
    Sync_En = 1;
    FileWrite();
    Sync_En = 0;
    FileWrite();
    FileWrite();
    assert_int_equal(Jitter, 68);
    Sync_En = 1;
    FileWrite();
    assert_int_equal(page_value("<b>Mean Offset [ns]:</b>\t"), -11);
    assert_int_equal(Jitter, 118);
}

static void test_last_second_at_second_0(void **state)
{
    (void)state;
    /* E4.3-3: at second 0 the "Last" per-second figures are the slots of second 59. */
    vplat_reg_set(24, 11);
    vplat_reg_set(26, 22);
    vplat_set_now_us((int64_t)utc_time(2026, 11, 16, 12, 0, 59) * 1000000);
    Stat_read();
    vplat_reg_set(24, 99);
    vplat_reg_set(26, 98);
    vplat_set_now_us((int64_t)utc_time(2026, 11, 16, 12, 1, 0) * 1000000);
    Stat_read();
    FileWrite();
    char *page = vplat_read_file(PAGE);
    assert_non_null(strstr(page, "<b>Request per Second:</b>\t11\t"));
    assert_non_null(strstr(page, "<b>Response per Second:</b>\t22\t"));
    /* The minute figures are the totals stored at 12:01:00. */
    assert_non_null(strstr(page, "<b>Request per Minute:</b>\t110\t110.00\n"));
    assert_non_null(strstr(page, "<b>Response per Minute:</b>\t120\t120.00\n"));
    free(page);

    /* At second 1 the figure is the slot of second 0. */
    vplat_set_now_us((int64_t)utc_time(2026, 11, 16, 12, 1, 1) * 1000000);
    Stat_read();
    FileWrite();
    page = vplat_read_file(PAGE);
    assert_non_null(strstr(page, "<b>Request per Second:</b>\t99\t"));
    assert_non_null(strstr(page, "<b>Response per Second:</b>\t98\t"));
    free(page);
}

/* The antenna line for a state code. */
static void assert_antenna(unsigned char code, const char *line)
{
    command_out_set_byte(CO_ANTENNA, code);
    FileWrite();
    char *page = vplat_read_file(PAGE);
    assert_non_null(page);
    char want[64];
    snprintf(want, sizeof want, "\n%s\n<b>GPS Emulation:</b>", line);
    if (strstr(page, want) == NULL)
        fail_msg("code %u: no \"%s\" line in\n%s", code, line, page);
    free(page);
}

static void test_antenna_texts(void **state)
{
    (void)state;
    /* E4.3-4: code 4 (and any code but 5, 6, 7): a blank and six blanks. */
    assert_antenna(4, "<b>Antenna:</b>       ");
    assert_antenna(0, "<b>Antenna:</b>       ");
    assert_antenna(1, "<b>Antenna:</b>       ");
    assert_antenna(8, "<b>Antenna:</b>       ");
    assert_antenna('5', "<b>Antenna:</b>       "); /* the character, not the number */
    assert_antenna(255, "<b>Antenna:</b>       ");
    assert_antenna(5, "<b>Antenna:</b> Short");
    assert_antenna(6, "<b>Antenna:</b> Off");
    assert_antenna(7, "<b>Antenna:</b> Ok");
}

/* The emulation line for a flag file content (NULL: no file). */
static void assert_emulation(const char *content, const char *line)
{
    unlink(vplat_path(EMUL_FILE));
    if (content != NULL)
        vplat_write_file(EMUL_FILE, content);
    FileWrite();
    char *page = vplat_read_file(PAGE);
    assert_non_null(page);
    char want[64];
    snprintf(want, sizeof want, "\n%s\n", line);
    if (strstr(page, want) == NULL)
        fail_msg("flag file \"%s\": no \"%s\" line", content ? content : "(missing)", line);
    free(page);
}

static void test_emulation_line(void **state)
{
    (void)state;
    /* E4.3-5: "On" when the first character is the digit 1, whatever follows. */
    assert_emulation("1", "<b>GPS Emulation:</b>\tOn");
    assert_emulation("1\n", "<b>GPS Emulation:</b>\tOn");
    assert_emulation("12", "<b>GPS Emulation:</b>\tOn");
    assert_emulation("1abc", "<b>GPS Emulation:</b>\tOn");
    /* Missing, empty or beginning with anything else: "Off". */
    assert_emulation(NULL, "<b>GPS Emulation:</b>\tOff");
    assert_emulation("", "<b>GPS Emulation:</b>\tOff");
    assert_emulation("0", "<b>GPS Emulation:</b>\tOff");
    assert_emulation("x1", "<b>GPS Emulation:</b>\tOff");
    assert_emulation(" 1", "<b>GPS Emulation:</b>\tOff");
    assert_emulation("2", "<b>GPS Emulation:</b>\tOff");
    assert_emulation("\n1", "<b>GPS Emulation:</b>\tOff");
}

static void test_page_ends_with_date_and_time(void **state)
{
    (void)state;
    /* E4.3-6: the last two lines are the current date and time, after the
     * emulation line. */
    fill_command_out("7", "GPS+GLONASS", 6);
    vplat_write_file(EMUL_FILE, "0\n");
    FileWrite();
    char *page = vplat_read_file(PAGE);
    assert_non_null(page);
    static const char tail[] = "\n<b>Antenna:</b> Off\n<b>GPS Emulation:</b>\tOff\n"
                               "Nov 16 2026\n13:27:46\n";
    size_t len = strlen(page);
    assert_true(len > strlen(tail));
    assert_string_equal(page + len - strlen(tail), tail);
    free(page);

    /* Only the 11 date and 8 time characters are taken. */
    put_text(CO_NOW, "Jan  1 2027 00:00:00.999");
    FileWrite();
    page = vplat_read_file(PAGE);
    len = strlen(page);
    assert_string_equal(page + len - strlen("Jan  1 2027\n00:00:00\n"), "Jan  1 2027\n00:00:00\n");
    assert_non_null(strstr(page, "<b>UTC</b>\t\t<b>Date:</b>\tJan  1 2027\n\t\t<b>Time:</b>\t"
                                 "00:00:00\n<b>Current"));
    free(page);
}

static void test_offset_text_widths(void **state)
{
    (void)state;
    /* Step 4: the decimal number at character 53, up to 8 characters. */
    fill_command_out("-9999999", "GPS+GLONASS", 7);
    FileWrite();
    assert_int_equal(page_value("<b>Current Offset [ns]:</b>\t"), -9999999);
    fill_command_out("99999999", "GPS+GLONASS", 7);
    FileWrite();
    assert_int_equal(page_value("<b>Current Offset [ns]:</b>\t"), 99999999);
    fill_command_out("", "GPS+GLONASS", 7);
    FileWrite();
    assert_int_equal(page_value("<b>Current Offset [ns]:</b>\t"), 0);
}

/* Runs FileWrite for capture_stderr. */
static void run_file_write(void *arg)
{
    *(int *)arg = FileWrite();
}

static void test_page_cannot_be_opened_read_only(void **state)
{
    (void)state;
    /* Failure handling: the RAM disk directory is read-only. */
    fill_command_out("-1234", "GPS+GLONASS", 7);
    Sync_En = 1;
    vplat_chmod("/ramcache/zarvent", 0);
    int dropped = drop_dac_override() == 0;
    int probe = open(vplat_path("/ramcache/zarvent/probe"), O_WRONLY | O_CREAT, 0644);
    if (probe >= 0) {
        close(probe);
        unlink(vplat_path("/ramcache/zarvent/probe"));
        if (dropped)
            restore_caps();
        vplat_chmod("/ramcache/zarvent", 1);
        skip(); /* permission checks cannot be made to apply here */
    }
    int result = -1;
    char *err = capture_stderr(run_file_write, &result);
    if (dropped)
        restore_caps();
    vplat_chmod("/ramcache/zarvent", 1);
    assert_int_equal(result, 0);
    char want[128];
    snprintf(want, sizeof want, "Cannot open file\n: %s\n", strerror(EACCES));
    assert_string_equal(err, want);
    assert_string_equal(err, "Cannot open file\n: Permission denied\n");
    free(err);
    assert_false(vplat_exists(PAGE));
    assert_int_equal(vplat_cmd_count(), 0);
    /* Nothing written, the filter not run. */
    assert_true(z_prev == 0.0f);
    assert_true(dz_prev == 0.0f);
    assert_int_equal(Jitter, 0);
}

static void test_page_cannot_be_opened_lock_stays(void **state)
{
    (void)state;
    /* Failure handling: the page cannot be opened (a directory of that name):
     * perror's text, no rm command, the lock stays for a later cycle. */
    assert_int_equal(mkdir(vplat_path(PAGE), 0755), 0);
    Sync_En = 1;
    fill_command_out("500", "GPS+GLONASS", 7);
    int result = -1;
    char *err = capture_stderr(run_file_write, &result);
    assert_int_equal(result, 0);
    char want[128];
    snprintf(want, sizeof want, "Cannot open file\n: %s\n", strerror(EISDIR));
    assert_string_equal(err, want);
    free(err);
    assert_true(vplat_exists(PAGE_LOCK));
    assert_int_equal(vplat_cmd_count(), 0);
    assert_true(z_prev == 0.0f);

    /* A later cycle that can write the page removes the lock. */
    assert_int_equal(rmdir(vplat_path(PAGE)), 0);
    FileWrite();
    assert_false(vplat_exists(PAGE_LOCK));
    assert_int_equal(page_value("<b>Current Offset [ns]:</b>\t"), 500);
}

static void test_lock_cannot_be_created(void **state)
{
    (void)state;
    /* Part 4.3 "Left to the implementer", status_page.c's choice: without a
     * lock file the page is still written. */
    assert_int_equal(mkdir(vplat_path(PAGE_LOCK), 0755), 0);
    fill_command_out("42", "GPS+GLONASS", 7);
    assert_int_equal(FileWrite(), 0);
    assert_int_equal(page_value("<b>Current Offset [ns]:</b>\t"), 42);
    char *page = vplat_read_file(PAGE);
    assert_non_null(strstr(page, "<b>GPS Emulation:</b>\tOff\nNov 16 2026\n13:27:46\n"));
    free(page);
    size_t end = assert_commands(0, "rm /ramcache/zarvent/lock", NULL);
    assert_int_equal(vplat_cmd_count(), end);
}

static void test_page_replaced_whole(void **state)
{
    (void)state;
    /* State and lifecycle: each cycle replaces the page whole. */
    vplat_write_file(PAGE, "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... "
                           "stale text that is longer than any page could ever be ... ");
    fill_command_out("1", "GPS+GLONASS", 7);
    FileWrite();
    char *page = vplat_read_file(PAGE);
    assert_null(strstr(page, "stale"));
    assert_int_equal(strncmp(page, "<b>UTC</b>\t\t<b>Date:</b>\t", 25), 0);
    free(page);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_golden_page, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_golden_page_alarm_and_filter, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_empty_reference_before_first_loop, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_reference_name_with_cycle_data, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_filter_idle_without_reference, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_filter_constant_offset, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_filter_state_kept_when_reference_lost,
                                        statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_last_second_at_second_0, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_antenna_texts, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_emulation_line, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_page_ends_with_date_and_time, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_offset_text_widths, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_page_cannot_be_opened_read_only, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_page_cannot_be_opened_lock_stays, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_lock_cannot_be_created, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_page_replaced_whole, statistics_setup, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
