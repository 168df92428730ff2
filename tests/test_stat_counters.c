/* Packet counters (Part 4.2): Stat_read, driven second by second by the
 * virtual clock over the registers 24 (requests) and 26 (responses). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "daemon/shared.h"
#include "platform/platform.h"
#include "statistics/Statistic.h"
#include "test_support.h"

#define REQ_CMD "./spiWrite -m 0 -l 4 -d 2 24 0 0"
#define RESP_CMD "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define REG48_CMD "./spiWrite -m 0 -l 3 -d 1 48 0"

/* One cycle's statistics step at the given time with the given readings. */
static void cycle_at(time_t t, uint64_t requests, uint64_t responses)
{
    vplat_reg_set(24, requests);
    vplat_reg_set(26, responses);
    vplat_set_now_us((int64_t)t * 1000000);
    Stat_read();
}

static void test_minute_slot_at_12_34_00(void **state)
{
    (void)state;
    /* E4.2-1: the readings of 12:33:01 to 12:33:59 and of 12:34:00 make RespMin[754]. */
    time_t start = utc_time(2026, 11, 16, 12, 33, 1);
    uint64_t resp_sum = 0, req_sum = 0;
    for (int k = 0; k < 59; k++) {
        uint64_t resp = 1000 + 3 * (uint64_t)k, req = 7 + (uint64_t)k;
        cycle_at(start + k, req, resp);
        resp_sum += resp;
        req_sum += req;
    }
    /* At 12:33:59 (second 59) the slot of second 59 is filled, no minute slot yet. */
    assert_int_equal(Stat_Out.RespSec[59], 1000 + 3 * 58);
    assert_int_equal(Stat_Out.RespMin[754], 0);
    assert_int_equal(Stat_Out.RespMin[753], 0);
    assert_true(Stat_Out.RespMinSum == (float)resp_sum);

    cycle_at(utc_time(2026, 11, 16, 12, 34, 0), 500, 40000);
    resp_sum += 40000; /* the slot of second 0 just stored is included */
    req_sum += 500;
    assert_int_equal(Stat_Out.RespSec[0], 40000);
    assert_int_equal(Stat_Out.RespMin[754], resp_sum);
    assert_int_equal(Stat_Out.ReqMin[754], req_sum);
    assert_int_equal(Stat_Out.RespMin[753], 0);
    assert_int_equal(Stat_Out.RespMin[755], 0);
    assert_true(Stat_Out.RespMinSum == (float)resp_sum);
    assert_true(Stat_Out.ReqMinSum == (float)req_sum);

    /* 12:34:01: the minute slot keeps its value; the per-second sum moves on. */
    cycle_at(utc_time(2026, 11, 16, 12, 34, 1), 0, 0);
    assert_int_equal(Stat_Out.RespMin[754], resp_sum);
    assert_int_equal(Stat_Out.ReqMin[754], req_sum);
    assert_true(Stat_Out.RespMinSum == (float)(resp_sum - 1000));
}

static void test_hour_slot_at_05_00_00(void **state)
{
    (void)state;
    /* E4.2-2: at 05:00:00 ReqHour[5] = ReqMin[240..299] (hour 4), ReqHourSum the same as float. */
    uint64_t req_sum = 0, resp_sum = 0;
    for (int i = 240; i < 300; i++) {
        Stat_Out.ReqMin[i] = 100 + (uint64_t)i;
        Stat_Out.RespMin[i] = 2 * (uint64_t)i;
        req_sum += 100 + (uint64_t)i;
        resp_sum += 2 * (uint64_t)i;
    }
    Stat_Out.ReqMin[239] = 1000000; /* hour 3: outside the range */
    Stat_Out.ReqMin[300] = 5000000; /* replaced by the minute total at 05:00:00 */
    Stat_Out.RespMin[239] = 1000000;
    Stat_Out.ReqHour[4] = 77;

    cycle_at(utc_time(2026, 11, 16, 4, 59, 59), 5, 6);
    assert_int_equal(Stat_Out.ReqHour[5], 0);
    assert_true(Stat_Out.ReqHourSum == 0.0f);

    cycle_at(utc_time(2026, 11, 16, 5, 0, 0), 7, 8);
    assert_int_equal(Stat_Out.ReqHour[5], req_sum);
    assert_int_equal(req_sum, 22170);
    assert_true(Stat_Out.ReqHourSum == 22170.0f);
    assert_int_equal(Stat_Out.RespHour[5], resp_sum);
    assert_true(Stat_Out.RespHourSum == (float)resp_sum);
    assert_int_equal(Stat_Out.ReqMin[300], 12); /* 5 at second 59 + 7 at second 0 */
    assert_int_equal(Stat_Out.ReqHour[4], 77);
    assert_int_equal(Stat_Out.ReqDay[16], 0); /* hour 5: no day slot */
    assert_int_equal(Stat_Out.RespDay[16], 0);

    /* 05:00:01: neither the hour slot nor the rolling hour sum is refreshed. */
    Stat_Out.ReqMin[250] += 1000;
    cycle_at(utc_time(2026, 11, 16, 5, 0, 1), 1, 1);
    assert_int_equal(Stat_Out.ReqHour[5], req_sum);
    assert_true(Stat_Out.ReqHourSum == 22170.0f);
}

static void test_hour_sum_wraps_at_00_10_00(void **state)
{
    (void)state;
    /* E4.2-3: at 00:10:00 ReqHourSum = ReqMin[1390..1439] + ReqMin[0..9]. */
    for (int i = 1390; i < 1440; i++)
        Stat_Out.ReqMin[i] = (uint64_t)(i - 1380); /* 10 .. 59 */
    for (int i = 0; i < 10; i++)
        Stat_Out.ReqMin[i] = 1000 + (uint64_t)i;
    Stat_Out.ReqMin[1389] = 1000000; /* just outside the range */
    Stat_Out.ReqMin[10] = 2000000;   /* the current minute: replaced, not summed */
    Stat_Out.ReqHour[0] = 55;

    cycle_at(utc_time(2026, 11, 17, 0, 9, 59), 3, 0);
    assert_true(Stat_Out.ReqHourSum == 0.0f);
    cycle_at(utc_time(2026, 11, 17, 0, 10, 0), 4, 0);
    assert_true(Stat_Out.ReqHourSum == 11770.0f); /* 1725 + 10045 */
    assert_int_equal(Stat_Out.ReqMin[10], 7);
    assert_int_equal(Stat_Out.ReqHour[0], 55); /* minute 10: no hour slot */
    assert_int_equal(Stat_Out.ReqDay[17], 0);
}

static void test_day_slot_at_midnight_on_the_first(void **state)
{
    (void)state;
    /* E4.2-4: at 00:00:00 on the 1st, ReqHour[0] first takes hour 23's total,
     * then ReqDay[1] the sum of all 24 hour slots. */
    for (int i = 1380; i < 1440; i++) {
        Stat_Out.ReqMin[i] = 10;
        Stat_Out.RespMin[i] = 20;
    }
    Stat_Out.ReqMin[1000] = 4242; /* a slot of the day before: kept after midnight */
    Stat_Out.ReqHour[0] = 999999; /* yesterday's hour 0: replaced before the day sum */
    Stat_Out.RespHour[0] = 999999;
    for (int h = 1; h < 24; h++) {
        Stat_Out.ReqHour[h] = 100 * (uint64_t)h;
        Stat_Out.RespHour[h] = 1;
    }
    Stat_Out.ReqDay[1] = 31313; /* last month's day 1 */
    Stat_Out.ReqDay[30] = 8;
    Stat_Out.ReqDay[31] = 9; /* day 31 of an earlier month: kept after a 30-day month */

    cycle_at(utc_time(2026, 11, 30, 23, 59, 59), 2, 3);
    assert_int_equal(Stat_Out.ReqDay[1], 31313);
    cycle_at(utc_time(2026, 12, 1, 0, 0, 0), 4, 5);

    assert_int_equal(Stat_Out.ReqHour[0], 600);
    assert_int_equal(Stat_Out.ReqDay[1], 600 + 27600);
    assert_int_equal(Stat_Out.RespHour[0], 1200);
    assert_int_equal(Stat_Out.RespDay[1], 1200 + 23);
    assert_true(Stat_Out.ReqHourSum == 600.0f);
    assert_int_equal(Stat_Out.ReqMin[0], 6);
    assert_int_equal(Stat_Out.ReqMin[1000], 4242);
    assert_int_equal(Stat_Out.ReqDay[0], 0);
    assert_int_equal(Stat_Out.ReqDay[30], 8);
    assert_int_equal(Stat_Out.ReqDay[31], 9);

    /* At 00:00:00 on another day the slot of that day is written. */
    cycle_at(utc_time(2026, 12, 2, 0, 0, 0), 0, 0);
    assert_int_equal(Stat_Out.ReqDay[2], 600 + 27600);
    assert_int_equal(Stat_Out.ReqDay[1], 600 + 27600);
}

static void test_missing_reading_65535(void **state)
{
    (void)state;
    /* E4.2-5: 65535 leaves 0 in the second slot and halves the running average. */
    Stat_Out.ReqSec[46] = 77;
    Stat_Out.RespSec[46] = 77;
    Stat_Out.ReqSec[10] = 5;
    Stat_Out.ReqAvg = 100.0f;
    Stat_Out.RespAvg = 31.0f;
    cycle_at(utc_time(2026, 11, 16, 13, 27, 46), 0xFFFF, 0xFFFF);
    assert_int_equal(Stat_Out.ReqSec[46], 0);
    assert_int_equal(Stat_Out.RespSec[46], 0);
    assert_true(Stat_Out.ReqAvg == 50.0f);
    assert_true(Stat_Out.RespAvg == 15.5f);
    assert_true(Stat_Out.ReqMinSum == 5.0f);

    /* 65534 is a reading like any other. */
    cycle_at(utc_time(2026, 11, 16, 13, 27, 47), 0xFFFE, 0);
    assert_int_equal(Stat_Out.ReqSec[47], 65534);
    assert_true(Stat_Out.ReqAvg == 32792.0f);

    /* At second 0 the missing reading adds 0 to the minute total. */
    Stat_Out.ReqSec[47] = 0;
    cycle_at(utc_time(2026, 11, 16, 13, 28, 0), 0xFFFF, 0);
    assert_int_equal(Stat_Out.ReqMin[13 * 60 + 28], 5);
}

static void test_flag_off_still_counts(void **state)
{
    (void)state;
    /* E4.2-6: with the flag off, the counters are read and aggregated in every
     * cycle, and the capture (register 48 first) does not run. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "0\n");
    scount = 1;
    cycle_at(utc_time(2026, 11, 16, 12, 33, 59), 11, 22);
    cycle_at(utc_time(2026, 11, 16, 12, 34, 0), 33, 44);
    size_t end = assert_commands(0, RESP_CMD, REQ_CMD, RESP_CMD, REQ_CMD, NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_int_equal(Stat_Out.ReqSec[59], 11);
    assert_int_equal(Stat_Out.RespSec[0], 44);
    assert_int_equal(Stat_Out.ReqMin[754], 44);
    assert_int_equal(Stat_Out.RespMin[754], 66);
    assert_true(Stat_Out.ReqAvg == ((11.0f * 0.5f) + 33.0f) * 0.5f);
    assert_int_equal(scount, 1); /* untouched while the flag is off */
    assert_int_equal(vplat_spi_exchanges(), 0);
    assert_false(vplat_exists("/ftpdir/stat.txt"));
}

/* 1 when a Stat_read with the given enable.cfg content (NULL: no file) runs the capture. */
static int flag_on_with(const char *content)
{
    vplat_cmd_clear();
    if (content != NULL)
        vplat_write_file("/usr/bin/Zarvent/enable.cfg", content);
    Stat_read();
    return vplat_cmd_find(REG48_CMD, 0) >= 0;
}

static void test_flag_file_variants(void **state)
{
    (void)state;
    /* Part 4.2 "Left to the implementer": a missing or empty file is off. */
    assert_false(flag_on_with(NULL));
    assert_false(flag_on_with(""));
    /* Step 1: the first byte as a decimal number. */
    assert_false(flag_on_with("0\n"));
    assert_false(flag_on_with("x1\n"));
    assert_false(flag_on_with(" 1\n"));
    assert_true(flag_on_with("1\n"));
    assert_true(flag_on_with("1"));
    assert_true(flag_on_with("7\n"));
    assert_true(flag_on_with("10\n"));  /* one byte: "1" */
    assert_false(flag_on_with("01\n")); /* one byte: "0" */
}

static void test_flag_on_command_lines(void **state)
{
    (void)state;
    /* Part 4.2 steps 1-5 with Part 4.1 steps 1-12: the exact command lines of
     * a flag-on cycle that performs the exchange. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    scount = 1;
    vplat_reg_set(48, 0x10);
    cycle_at(utc_time(2026, 11, 16, 13, 27, 46), 0x0405, 0x0203);
    size_t end = assert_commands(0, REG48_CMD, "./spiWrite -m 1 -l 3 -d 1 1 20 0", RESP_CMD,
                                 REQ_CMD, "rm /ftpdir/lock", RESP_CMD, REQ_CMD, NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_string_equal(vplat_cmd_mode(0), "r");
    assert_string_equal(vplat_cmd_mode(1), "r");
    assert_int_equal(Stat_Out.RespSec[46], 0x0203);
    assert_int_equal(Stat_Out.ReqSec[46], 0x0405);
    assert_int_equal(vplat_spi_exchanges(), 1);

    /* The next cycle: steps 1 and 2 of the capture, then the counters. */
    vplat_cmd_clear();
    vplat_reg_set(48, 0x03);
    cycle_at(utc_time(2026, 11, 16, 13, 27, 47), 1, 2);
    end = assert_commands(0, REG48_CMD, "./spiWrite -m 1 -l 3 -d 1 1 7 0", RESP_CMD, REQ_CMD, NULL);
    assert_int_equal(vplat_cmd_count(), end);
}

static void test_timeinfo_refreshed(void **state)
{
    (void)state;
    /* Part 4.2 step 2: timeinfo is the time of this cycle. */
    timeinfo_refresh(utc_time(2026, 1, 1, 0, 0, 0));
    cycle_at(utc_time(2026, 11, 16, 13, 27, 46), 0, 0);
    struct tm t;
    timeinfo_get(&t);
    assert_int_equal(t.tm_hour, 13);
    assert_int_equal(t.tm_min, 27);
    assert_int_equal(t.tm_sec, 46);
    assert_int_equal(t.tm_mday, 16);
}

static void test_two_byte_reading_and_average(void **state)
{
    (void)state;
    /* Interfaces: the reading is L + 256 H; the average has weight one half. */
    cycle_at(utc_time(2026, 11, 16, 13, 27, 0), 0x1234, 1000);
    assert_int_equal(Stat_Out.ReqSec[0], 4660);
    assert_true(Stat_Out.ReqAvg == 2330.0f);
    assert_true(Stat_Out.RespAvg == 500.0f); /* a burst ... */
    cycle_at(utc_time(2026, 11, 16, 13, 27, 1), 0, 0);
    assert_true(Stat_Out.RespAvg == 250.0f); /* ... decays by half each second */
    cycle_at(utc_time(2026, 11, 16, 13, 27, 2), 0, 0);
    assert_true(Stat_Out.RespAvg == 125.0f);
    /* Under a constant count c the average approaches c. */
    for (int k = 3; k < 40; k++)
        cycle_at(utc_time(2026, 11, 16, 13, 27, k), 0, 1000);
    assert_true(Stat_Out.RespAvg > 999.99f && Stat_Out.RespAvg <= 1000.0f);
}

/* One cycle at 13:27:46 whose response reading is set up by prepare; the slot
 * and the average show what the step took. */
static void failed_reading(void (*prepare)(void), uint64_t *slot)
{
    Stat_Out.RespSec[46] = 9;
    Stat_Out.RespAvg = 8.0f;
    prepare();
    cycle_at(utc_time(2026, 11, 16, 13, 27, 46), 3, 300);
    assert_int_equal(*slot, 0);
    assert_true(Stat_Out.RespAvg == 4.0f);
    assert_int_equal(Stat_Out.ReqSec[46], 3); /* the other counter is read as usual */
}

static void resp_cannot_start(void)
{
    vplat_fail_command(RESP_CMD);
}

static void resp_short_output(void)
{
    vplat_on_command(RESP_CMD, "spiWrite: mode 0 length 4 data 2\nregister 26\ntx: 26 0 0\n");
}

static void resp_garbage(void)
{
    vplat_on_command(RESP_CMD, spi_output("AA AA zz \x80\x81\n"));
}

static void resp_empty_fifth_line(void)
{
    vplat_on_command(RESP_CMD, spi_output("AA A\n"));
}

static void test_counter_read_failures(void **state)
{
    (void)state;
    /* Our choice (counters.c): a read that fails is no reading and counts as 0. */
    failed_reading(resp_cannot_start, &Stat_Out.RespSec[46]);
}

static void test_counter_short_output(void **state)
{
    (void)state;
    failed_reading(resp_short_output, &Stat_Out.RespSec[46]);
}

static void test_counter_garbage_output(void **state)
{
    (void)state;
    failed_reading(resp_garbage, &Stat_Out.RespSec[46]);
}

static void test_counter_fifth_line_too_short(void **state)
{
    (void)state;
    failed_reading(resp_empty_fifth_line, &Stat_Out.RespSec[46]);
}

static void test_register_tool_faults(void **state)
{
    (void)state;
    /* Garbage on every line, and only two lines: both readings count as 0. */
    Stat_Out.ReqSec[46] = 9;
    Stat_Out.RespSec[46] = 9;
    vplat_regtool_fault(1);
    cycle_at(utc_time(2026, 11, 16, 13, 27, 46), 5, 5);
    assert_int_equal(Stat_Out.ReqSec[46], 0);
    assert_int_equal(Stat_Out.RespSec[46], 0);
    Stat_Out.ReqSec[47] = 9;
    vplat_regtool_fault(2);
    cycle_at(utc_time(2026, 11, 16, 13, 27, 47), 5, 5);
    assert_int_equal(Stat_Out.ReqSec[47], 0);
    assert_true(Stat_Out.ReqAvg == 0.0f);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_minute_slot_at_12_34_00, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_hour_slot_at_05_00_00, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_hour_sum_wraps_at_00_10_00, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_day_slot_at_midnight_on_the_first, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_missing_reading_65535, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_flag_off_still_counts, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_flag_file_variants, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_flag_on_command_lines, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_timeinfo_refreshed, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_two_byte_reading_and_average, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_read_failures, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_short_output, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_garbage_output, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_fifth_line_too_short, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_register_tool_faults, statistics_setup,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
