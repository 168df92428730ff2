/* Start-up, RAM disk and threads (Part 1.1); shared state at start (Part 1.2). */
#include <stdlib.h>
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "daemon/startup.h"
#include "fpga/ThreadFPGA.h"
#include "statistics/Statistic.h"
#include "supervision/ThreadLED.h"
#include "test_support.h"

/* A board as it comes up: tools installed, no RAM disk yet. */
static int bare_board(void **state)
{
    (void)state;
    vplat_reset(utc_time(2026, 3, 7, 9, 5, 12));
    vplat_write_file("/usr/bin/Zarvent/Version_1.rbf", "bitstream\n");
    return 0;
}

static void test_create_ramdisk_commands(void **state)
{
    (void)state;
    CreateRAMDisk();
    size_t end = assert_commands(0, "mkfs -q /dev/ram1 8192", "mkdir -p /ramcache",
                                 "mount /dev/ram1 /ramcache", "df -h | grep ramcache",
                                 "mkdir /ramcache/ntp", "mkdir /ramcache/zarvent",
                                 "/sbin/agetty -h 115200 ttyO1 vt100 &", "/usr/bin/mversion",
                                 "touch /ramcache/zarvent/ptp_data_0000_00_01;"
                                 "touch /ramcache/zarvent/ptp_data_0000_00_02;"
                                 "touch /ramcache/zarvent/ptp_data_0000_00_03",
                                 "touch /ramcache/zarvent/09_05_2026-03-07.time", NULL);
    assert_int_equal(end, vplat_cmd_count());
    static const char *const modes[] = {"r", "r", "r", "r", "r", "r", "r", "r", "w", "w"};
    for (size_t i = 0; i < end; i++)
        assert_string_equal(vplat_cmd_mode(i), modes[i]);
    assert_true(vplat_ramdisk_mounted());
    assert_file("/ramcache/zarvent/ntp.drift", "");
    assert_true(vplat_exists("/ramcache/ntp"));
    assert_true(vplat_exists("/ramcache/zarvent/ptp_data_0000_00_01"));
    assert_true(vplat_exists("/ramcache/zarvent/ptp_data_0000_00_02"));
    assert_true(vplat_exists("/ramcache/zarvent/ptp_data_0000_00_03"));
    assert_true(vplat_exists("/ramcache/zarvent/09_05_2026-03-07.time"));
}

static void test_marker_from_start_time(void **state)
{
    (void)state;
    /* E1.1-1: a start at 23:59:59 on 31 December names the marker from that
     * local time, not from the time the first cycle runs. */
    vplat_set_now_us((int64_t)utc_time(2026, 12, 31, 23, 59, 59) * 1000000);
    CreateRAMDisk();
    vplat_set_now_us((int64_t)utc_time(2027, 1, 1, 0, 0, 1) * 1000000);
    Stat_read(); /* the first cycle's refresh of timeinfo */
    assert_true(vplat_exists("/ramcache/zarvent/23_59_2026-12-31.time"));
    assert_false(vplat_exists("/ramcache/zarvent/00_00_2027-01-01.time"));
    assert_int_equal(vplat_cmd_occurrences("touch /ramcache/zarvent/23_59_2026-12-31.time"), 1);
}

static void test_second_start(void **state)
{
    (void)state;
    /* E1.1-2: a second start while /ramcache is mounted re-runs every step;
     * failures are ignored and ntp.drift is truncated to empty. */
    CreateRAMDisk();
    vplat_write_file("/ramcache/zarvent/ntp.drift", "12.345\n");
    vplat_write_file("/ramcache/zarvent/errorlog.log", "kept\n");
    size_t first = vplat_cmd_count();
    vplat_fail_command("mkfs -q /dev/ram1 8192");
    CreateRAMDisk();
    assert_int_equal(vplat_cmd_count(), 2 * first);
    for (size_t i = 0; i < first; i++)
        assert_string_equal(vplat_cmd(first + i), vplat_cmd(i));
    assert_file("/ramcache/zarvent/ntp.drift", "");
    assert_file("/ramcache/zarvent/errorlog.log", "kept\n");
}

static void test_stat_out_cleared(void **state)
{
    (void)state;
    /* E1.1-3 */
    memset(&Stat_Out, 0xA5, sizeof Stat_Out);
    CreateRAMDisk();
    const unsigned char *bytes = (const unsigned char *)&Stat_Out;
    for (size_t i = 0; i < sizeof Stat_Out; i++)
        assert_int_equal(bytes[i], 0);
    assert_true(Stat_Out.RespAvg == 0.0f && Stat_Out.ReqHourSum == 0.0f);
}

static void test_missing_ramdisk_goes_on(void **state)
{
    (void)state;
    /* Part 1.1 failure handling: a failing command or an uncreatable drift
     * file is skipped; the later steps still run. */
    vplat_fail_command("mkdir /ramcache/zarvent");
    vplat_fail_command("/usr/bin/mversion");
    vplat_tool_absent("mount", 1);
    CreateRAMDisk();
    assert_false(vplat_exists("/ramcache/zarvent/ntp.drift"));
    assert_true(vplat_cmd_find("touch /ramcache/zarvent/09_05_2026-03-07.time", 0) > 0);
    assert_non_null(timeinfo);
}

static void test_timeinfo_set_before_threads(void **state)
{
    (void)state;
    /* E1.2-2: before the cycle thread's first cycle, timeinfo points to the
     * local time taken at start-up. */
    CreateRAMDisk();
    assert_non_null(timeinfo);
    struct tm t;
    timeinfo_get(&t);
    assert_int_equal(t.tm_year + 1900, 2026);
    assert_int_equal(t.tm_mon + 1, 3);
    assert_int_equal(t.tm_mday, 7);
    assert_int_equal(t.tm_hour, 9);
    assert_int_equal(t.tm_min, 5);
    assert_int_equal(t.tm_sec, 12);
    assert_int_equal(timeinfo->tm_sec, 12);
}

static void test_threads_in_order(void **state)
{
    (void)state;
    CreateThreads();
    assert_int_equal(vplat_thread_count(), 3);
    assert_ptr_equal(vplat_thread_entry(0), ThreadSrvFPGA);
    assert_ptr_equal(vplat_thread_entry(1), ThreadSrvLED);
    assert_ptr_equal(vplat_thread_entry(2), ThreadSrvINT);
}

static void test_reference_name_empty_before_first_pass(void **state)
{
    (void)state;
    /* E1.2-1 (first half): before the supervision thread's first loop,
     * positions 0-17 of Command_Out are empty. The status page half is in
     * test_status_page.c. */
    CreateRAMDisk();
    char name[18];
    command_out_get(CO_REF_NAME, name, sizeof name);
    for (size_t i = 0; i < sizeof name; i++)
        assert_int_equal(name[i], 0);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_create_ramdisk_commands, bare_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_marker_from_start_time, bare_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_second_start, bare_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_stat_out_cleared, bare_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_missing_ramdisk_goes_on, bare_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_timeinfo_set_before_threads, bare_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_threads_in_order, bare_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_reference_name_empty_before_first_pass, bare_board,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
