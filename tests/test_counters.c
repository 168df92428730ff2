/* Packet counters (Part 4.2). */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/shared.h"
#include "statistics/Statistic.h"
#include "test_support.h"

#define RESP_READ "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define REQ_READ "./spiWrite -m 0 -l 4 -d 2 24 0 0"
#define ENABLE_CFG "/usr/bin/Zarvent/enable.cfg"

/* Every global the statistics step reads or writes, as at start-up; the
 * statistics flag off. */
static int counters_setup(void **state)
{
    board_setup(state);
    memset(&Stat_Out, 0, sizeof Stat_Out);
    scount = 0;
    smode = 1;
    bits = 0;
    dataLen = 0;
    memset(buffer, 0, sizeof buffer);
    timeinfo_refresh(0);
    vplat_write_file(ENABLE_CFG, "0\n");
    return 0;
}

/* One cycle at the given local time with the given counter readings. */
static void cycle_at(time_t t, uint64_t responses, uint64_t requests)
{
    vplat_set_now_us((int64_t)t * 1000000);
    vplat_reg_set(26, responses);
    vplat_reg_set(24, requests);
    Stat_read();
}

/* Sum of 60 float conversions in the given index order, in single precision. */
static float float_sum(const uint64_t *slots, int first, int count, int modulo)
{
    float sum = 0.0f;
    for (int i = 0; i < count; i++)
        sum += (float)slots[(first + i) % modulo];
    return sum;
}

static void test_flag_off_reads_counters(void **state)
{
    (void)state;
    /* E4.2-6: with the flag off the two counters are still read and stored,
     * averaged and added up in every cycle; no capture step. */
    time_t t = utc_time(2026, 11, 16, 13, 27, 0);
    cycle_at(t, 0x0102, 0x0304);
    size_t i = assert_commands(0, RESP_READ, REQ_READ, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_string_equal(vplat_cmd_mode(0), "r");
    assert_int_equal(Stat_Out.RespSec[0], 258);
    assert_int_equal(Stat_Out.ReqSec[0], 772);
    assert_true(Stat_Out.RespAvg == 129.0f);
    assert_true(Stat_Out.ReqAvg == 386.0f);
    assert_int_equal(Stat_Out.RespMin[13 * 60 + 27], 258);
    assert_int_equal(Stat_Out.ReqMin[13 * 60 + 27], 772);
    assert_true(Stat_Out.RespMinSum == 258.0f);
    assert_true(Stat_Out.ReqMinSum == 772.0f);

    cycle_at(t + 1, 10, 20);
    i = assert_commands(i, RESP_READ, REQ_READ, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_int_equal(Stat_Out.RespSec[1], 10);
    assert_int_equal(Stat_Out.ReqSec[1], 20);
    assert_true(Stat_Out.RespAvg == 69.5f);
    assert_true(Stat_Out.ReqAvg == 203.0f);
    assert_true(Stat_Out.RespMinSum == 268.0f);
    assert_true(Stat_Out.ReqMinSum == 792.0f);
    /* The minute total is stored at second 0 only. */
    assert_int_equal(Stat_Out.RespMin[13 * 60 + 27], 258);
    assert_int_equal(scount, 0);
    assert_int_equal(vplat_spi_exchanges(), 0);
}

static void test_enable_file_contents(void **state)
{
    (void)state;
    /* Step 1: the first byte as a decimal number. Part 4.2 "Left to the
     * implementer", our choice: a missing or empty file is off. */
    static const struct {
        const char *content; /* NULL: no file */
        int on;
    } cases[] = {
        {"1\n", 1}, {"1", 1},  {"7", 1},  {"10", 1}, {"0", 0},  {"05", 0},
        {"x1", 0},  {"\n", 0}, {" 1", 0}, {"", 0},   {NULL, 0},
    };
    for (size_t k = 0; k < sizeof cases / sizeof cases[0]; k++) {
        if (cases[k].content)
            vplat_write_file(ENABLE_CFG, cases[k].content);
        else
            unlink(vplat_path(ENABLE_CFG));
        vplat_cmd_clear();
        scount = 0;
        Stat_read();
        if (cases[k].on)
            assert_commands(0, "./spiWrite -m 0 -l 3 -d 1 48 0", "./spiWrite -m 1 -l 3 -d 1 1 4 0",
                            RESP_READ, REQ_READ, NULL);
        else
            assert_commands(0, RESP_READ, REQ_READ, NULL);
        assert_int_equal(vplat_cmd_count(), cases[k].on ? 4 : 2);
    }
    /* An unreadable flag file (a directory) is off as well. */
    unlink(vplat_path(ENABLE_CFG));
    assert_int_equal(mkdir(vplat_path(ENABLE_CFG), 0755), 0);
    vplat_cmd_clear();
    Stat_read();
    assert_commands(0, RESP_READ, REQ_READ, NULL);
    assert_int_equal(vplat_cmd_count(), 2);
}

static void test_timeinfo_refreshed(void **state)
{
    (void)state;
    /* Step 2: timeinfo holds the time of this cycle for every later step. */
    time_t t = utc_time(2026, 3, 7, 9, 5, 12);
    vplat_set_now_us((int64_t)t * 1000000 + 999999);
    Stat_read();
    assert_non_null(timeinfo);
    struct tm now_tm;
    timeinfo_get(&now_tm);
    assert_int_equal(now_tm.tm_year, 126);
    assert_int_equal(now_tm.tm_mon, 2);
    assert_int_equal(now_tm.tm_mday, 7);
    assert_int_equal(now_tm.tm_hour, 9);
    assert_int_equal(now_tm.tm_min, 5);
    assert_int_equal(now_tm.tm_sec, 12);
    assert_int_equal(timeinfo->tm_sec, 12);
    assert_int_equal(Stat_Out.RespSec[12], vplat_reg_get(26));
}

static void test_minute_total_at_12_34_00(void **state)
{
    (void)state;
    /* E4.2-1: at 12:34:00 RespMin[754] receives the readings taken at
     * 12:33:01 to 12:33:59 and at 12:34:00. The reading of 12:33:00 shares
     * slot 0 with that of 12:34:00 and is replaced by it. */
    time_t t0 = utc_time(2026, 11, 16, 12, 33, 0);
    cycle_at(t0, 50000, 40000);
    uint64_t expected = 0;
    for (int s = 1; s <= 59; s++) {
        cycle_at(t0 + s, (uint64_t)(s * 3 + 1), (uint64_t)s);
        expected += (uint64_t)(s * 3 + 1);
    }
    assert_int_equal(Stat_Out.RespMin[753], 50000);
    assert_int_equal(Stat_Out.RespMin[754], 0);
    /* Up to second 59 the hour sum is the one of 12:33:00 (all zeros). */
    assert_true(Stat_Out.RespHourSum == 0.0f);
    cycle_at(t0 + 60, 777, 5);
    expected += 777;
    assert_int_equal(Stat_Out.RespMin[754], expected);
    assert_int_equal(Stat_Out.RespMin[753], 50000);
    assert_int_equal(Stat_Out.ReqMin[754], 1770 + 5);
    assert_int_equal(Stat_Out.RespSec[0], 777);
    assert_true(Stat_Out.RespMinSum == (float)expected);
    /* The rolling hour sum at 12:34:00 covers 11:34 to 12:33. */
    assert_true(Stat_Out.RespHourSum == 50000.0f);
    assert_true(Stat_Out.ReqHourSum == 40000.0f);
    /* Not an hour boundary: no hour or day total. */
    for (int h = 0; h < 24; h++)
        assert_int_equal(Stat_Out.RespHour[h], 0);
}

static void test_second_59_and_second_0(void **state)
{
    (void)state;
    /* The boundaries of one minute: at second 59 only the second slot, the
     * average and the minute sum change; at second 0 the minute total and
     * the rolling hour sum as well. */
    for (int i = 0; i < 60; i++)
        Stat_Out.ReqSec[i] = 1;
    Stat_Out.ReqMin[12 * 60 + 34] = 99;
    Stat_Out.ReqMin[12 * 60 + 35] = 98;
    Stat_Out.ReqHourSum = 12345.0f;
    Stat_Out.ReqHour[12] = 97;
    cycle_at(utc_time(2026, 11, 16, 12, 34, 59), 0, 30);
    assert_int_equal(Stat_Out.ReqSec[59], 30);
    assert_true(Stat_Out.ReqMinSum == 89.0f);
    assert_int_equal(Stat_Out.ReqMin[12 * 60 + 34], 99);
    assert_int_equal(Stat_Out.ReqMin[12 * 60 + 35], 98);
    assert_true(Stat_Out.ReqHourSum == 12345.0f);

    cycle_at(utc_time(2026, 11, 16, 12, 35, 0), 0, 2);
    assert_int_equal(Stat_Out.ReqSec[0], 2);
    assert_int_equal(Stat_Out.ReqMin[12 * 60 + 35], 90); /* 58 ones, 30 and 2 */
    assert_int_equal(Stat_Out.ReqMin[12 * 60 + 34], 99);
    assert_true(Stat_Out.ReqMinSum == 90.0f);
    assert_true(Stat_Out.ReqHourSum == 99.0f); /* slots 695 to 754: only 754 set */
    assert_int_equal(Stat_Out.ReqHour[12], 97);
}

static void test_hour_total_at_05_00_00(void **state)
{
    (void)state;
    /* E4.2-2: at 05:00:00 ReqHour[5] receives ReqMin[240] to ReqMin[299]
     * (hour 4) and ReqHourSum the same sum as a float. */
    uint64_t expected = 0;
    for (int i = 240; i < 300; i++) {
        Stat_Out.ReqMin[i] = (uint64_t)(i * 11);
        Stat_Out.RespMin[i] = (uint64_t)i;
        expected += (uint64_t)(i * 11);
    }
    Stat_Out.ReqMin[239] = 100000; /* hour 3: not part of the total */
    Stat_Out.ReqMin[300] = 100000; /* replaced by the minute total */
    Stat_Out.ReqHour[4] = 5;
    cycle_at(utc_time(2026, 11, 16, 5, 0, 0), 3, 4);
    assert_int_equal(Stat_Out.ReqMin[300], 4);
    assert_int_equal(Stat_Out.ReqHour[5], expected);
    assert_int_equal(Stat_Out.RespHour[5], (240 + 299) * 60 / 2);
    assert_true(Stat_Out.ReqHourSum == (float)expected);
    assert_true(Stat_Out.ReqHourSum == float_sum(Stat_Out.ReqMin, 240, 60, 1440));
    assert_true(Stat_Out.RespHourSum == (float)((240 + 299) * 60 / 2));
    assert_int_equal(Stat_Out.ReqHour[4], 5);
    assert_int_equal(Stat_Out.ReqDay[16], 0);

    /* Hour 5 at minute 1 keeps the hour total. */
    cycle_at(utc_time(2026, 11, 16, 5, 1, 0), 0, 0);
    assert_int_equal(Stat_Out.ReqHour[5], expected);
}

static void test_hour_driven_second_by_second(void **state)
{
    (void)state;
    /* E4.2-2 end to end: every second from 03:59:00 to 05:00:00. The minute
     * slots of hour 4 were stored at 04:00:00 to 04:59:00, so ReqHour[5]
     * holds the readings of 03:59:01 to 04:59:00. */
    time_t from = utc_time(2026, 11, 16, 3, 59, 0);
    time_t first = from + 1, last = utc_time(2026, 11, 16, 4, 59, 0);
    uint64_t expected = 0;
    for (time_t t = from; t <= from + 3660; t++) {
        uint64_t reading = (uint64_t)(t % 97) + 1;
        cycle_at(t, reading * 2, reading);
        if (t >= first && t <= last)
            expected += reading;
    }
    assert_int_equal(vplat_cmd_count(), 2 * 3661);
    assert_int_equal(Stat_Out.ReqHour[5], expected);
    assert_int_equal(Stat_Out.RespHour[5], 2 * expected);
    assert_true(Stat_Out.ReqHourSum == (float)expected);
    assert_true(Stat_Out.RespHourSum == (float)(2 * expected));
    uint64_t minutes = 0;
    for (int i = 240; i < 300; i++)
        minutes += Stat_Out.ReqMin[i];
    assert_int_equal(minutes, expected);
    /* 04:00:00 summed hour 3, of which only 03:59:00 was read. */
    assert_int_equal(Stat_Out.ReqHour[4], (uint64_t)(from % 97) + 1);
}

static void test_hour_sum_wraps_at_00_10_00(void **state)
{
    (void)state;
    /* E4.2-3: at 00:10:00 ReqHourSum is the sum of ReqMin[1390] to
     * ReqMin[1439] and ReqMin[0] to ReqMin[9]. */
    float expected = 0.0f;
    for (int i = 1390; i < 1440; i++) {
        Stat_Out.ReqMin[i] = (uint64_t)(i - 1380);
        expected += (float)(i - 1380);
    }
    for (int i = 0; i < 10; i++) {
        Stat_Out.ReqMin[i] = (uint64_t)(1000 * (i + 1));
        expected += (float)(1000 * (i + 1));
    }
    Stat_Out.ReqMin[1389] = 7000000; /* outside the range */
    Stat_Out.ReqMin[10] = 7000000;   /* the current minute: replaced, not summed */
    cycle_at(utc_time(2026, 11, 17, 0, 10, 0), 0, 1);
    assert_int_equal(Stat_Out.ReqMin[10], 1);
    assert_true(Stat_Out.ReqHourSum == expected);
    assert_true(Stat_Out.ReqHourSum == 56725.0f);
    /* Not an hour boundary. */
    assert_int_equal(Stat_Out.ReqHour[0], 0);
}

static void test_hour_sum_order_across_midnight(void **state)
{
    (void)state;
    /* Step 4.6 in single precision, in the order of the range: from
     * (h x 60 + m - 60), wrapped into hour 23, up to slot h x 60 + m - 1.
     * 2^24 first absorbs every later 1 (2^24 + 1 rounds to 2^24); any other
     * order, or a sum in double precision, gives a larger result. */
    for (int i = 0; i < 1440; i++)
        Stat_Out.ReqMin[i] = 1;
    Stat_Out.ReqMin[1390] = 16777216;
    cycle_at(utc_time(2026, 11, 17, 0, 10, 0), 0, 0);
    assert_true(Stat_Out.ReqHourSum == 16777216.0f);
}

static void test_minute_sum_order(void **state)
{
    (void)state;
    /* Step 4.4: the 60 second slots, each converted to float, added from
     * slot 0 to slot 59 in single precision. */
    for (int i = 0; i < 60; i++)
        Stat_Out.RespSec[i] = 1;
    Stat_Out.RespSec[0] = 16777216;
    cycle_at(utc_time(2026, 11, 16, 12, 0, 30), 1, 0);
    assert_true(Stat_Out.RespMinSum == 16777216.0f);
    /* The integer minute total of the same slots is exact. */
    Stat_Out.RespSec[1] = 16777216;
    cycle_at(utc_time(2026, 11, 16, 12, 1, 0), 65534, 0);
    assert_int_equal(Stat_Out.RespMin[721], 65534 + 16777216 + 58);
}

static void test_day_total_on_the_first(void **state)
{
    (void)state;
    /* E4.2-4: at 00:00:00 on the 1st, ReqHour[0] is first set to the total
     * of hour 23, then ReqDay[1] receives the sum of all 24 ReqHour slots. */
    uint64_t hour23 = 0;
    for (int i = 1380; i < 1440; i++) {
        Stat_Out.ReqMin[i] = (uint64_t)(i - 1370);
        hour23 += (uint64_t)(i - 1370);
    }
    uint64_t others = 0;
    for (int h = 1; h < 24; h++) {
        Stat_Out.ReqHour[h] = (uint64_t)h * 1000000000ULL; /* beyond 32 bits */
        others += (uint64_t)h * 1000000000ULL;
    }
    Stat_Out.ReqHour[0] = 123456789; /* yesterday's hour 0: replaced first */
    Stat_Out.ReqDay[1] = 42;
    Stat_Out.ReqDay[31] = 31;
    cycle_at(utc_time(2026, 12, 1, 0, 0, 0), 0, 6);
    assert_int_equal(Stat_Out.ReqHour[0], hour23);
    assert_int_equal(Stat_Out.ReqDay[1], others + hour23);
    assert_int_equal(Stat_Out.ReqDay[0], 0);
    assert_int_equal(Stat_Out.ReqDay[31], 31); /* a day slot keeps its value */
    assert_int_equal(Stat_Out.ReqMin[0], 6);
    assert_int_equal(Stat_Out.RespDay[1], 0);
    assert_true(Stat_Out.ReqHourSum == (float)hour23);
}

static void test_day_driven_second_by_second(void **state)
{
    (void)state;
    /* E4.2-4 end to end: every second of 30 November, then 00:00:00 on
     * 1 December. The hour slots then cover the readings of 00:00:00 to
     * 23:59:00 (the minute slot of 23:59 was stored at 23:59:00), and
     * ReqDay[1] their sum. */
    time_t from = utc_time(2026, 11, 30, 0, 0, 0);
    time_t midnight = utc_time(2026, 12, 1, 0, 0, 0);
    uint64_t expected = 0, hour23 = 0;
    for (time_t t = from; t <= midnight; t++) {
        uint64_t reading = (uint64_t)(t % 251);
        cycle_at(t, 0, reading);
        if (t <= midnight - 60)
            expected += reading;
        if (t > midnight - 3660 && t <= midnight - 60)
            hour23 += reading;
    }
    assert_int_equal(Stat_Out.ReqHour[0], hour23);
    assert_int_equal(Stat_Out.ReqDay[1], expected);
    assert_int_equal(Stat_Out.ReqDay[30], 0); /* 30 November 00:00:00: nothing before */
    assert_int_equal(Stat_Out.RespDay[1], 0);
}

static void test_day_total_on_other_days(void **state)
{
    (void)state;
    /* Midnight of any day stores the slot of that day; day 31 of a 30-day
     * month is not reached. */
    for (int h = 0; h < 24; h++)
        Stat_Out.RespHour[h] = 2;
    for (int i = 1380; i < 1440; i++)
        Stat_Out.RespMin[i] = 1;
    cycle_at(utc_time(2026, 11, 17, 0, 0, 0), 0, 0);
    assert_int_equal(Stat_Out.RespHour[0], 60);
    assert_int_equal(Stat_Out.RespDay[17], 23 * 2 + 60);
    /* One second later: nothing more. */
    cycle_at(utc_time(2026, 11, 17, 0, 0, 1), 0, 0);
    assert_int_equal(Stat_Out.RespDay[17], 23 * 2 + 60);
    assert_int_equal(Stat_Out.RespDay[18], 0);
}

static void test_missing_reading(void **state)
{
    (void)state;
    /* E4.2-5: 65535 leaves 0 in the second slot and halves the average. */
    Stat_Out.RespSec[17] = 7;
    Stat_Out.ReqSec[17] = 7;
    Stat_Out.RespAvg = 100.0f;
    Stat_Out.ReqAvg = 41.0f;
    cycle_at(utc_time(2026, 11, 16, 13, 27, 17), 0xFFFF, 0xFFFF);
    assert_int_equal(Stat_Out.RespSec[17], 0);
    assert_int_equal(Stat_Out.ReqSec[17], 0);
    assert_true(Stat_Out.RespAvg == 50.0f);
    assert_true(Stat_Out.ReqAvg == 20.5f);
    assert_true(Stat_Out.RespMinSum == 0.0f);
    /* 65534 and 0xFF00 are real readings. */
    cycle_at(utc_time(2026, 11, 16, 13, 27, 18), 0xFFFE, 0xFF00);
    assert_int_equal(Stat_Out.RespSec[18], 65534);
    assert_int_equal(Stat_Out.ReqSec[18], 65280);
}

static void test_running_average(void **state)
{
    (void)state;
    /* Part 4.2: under a constant count the average approaches it; a single
     * burst decays by half in each following second. */
    time_t t = utc_time(2026, 11, 16, 13, 0, 1);
    for (int i = 0; i < 30; i++)
        cycle_at(t + i, 40, 40);
    assert_true(Stat_Out.RespAvg > 39.99f && Stat_Out.RespAvg <= 40.0f);
    memset(&Stat_Out, 0, sizeof Stat_Out);
    cycle_at(t + 40, 1024, 0);
    assert_true(Stat_Out.RespAvg == 512.0f);
    cycle_at(t + 41, 0, 0);
    assert_true(Stat_Out.RespAvg == 256.0f);
    cycle_at(t + 42, 0, 0);
    assert_true(Stat_Out.RespAvg == 128.0f);
}

static void test_counter_read_failures_count_as_zero(void **state)
{
    (void)state;
    /* Our choice (counters.c): a read that cannot start or prints fewer than
     * five lines is no reading and counts as 0, like 65535; a fifth line
     * without hex digits parses as 0 (Part 2.2). */
    time_t t = utc_time(2026, 11, 16, 13, 27, 5);
    Stat_Out.RespSec[5] = 9;
    Stat_Out.ReqSec[5] = 9;
    Stat_Out.RespAvg = 8.0f;
    Stat_Out.ReqAvg = 8.0f;
    vplat_tool_absent("spiWrite", 1); /* the shell prints nothing */
    cycle_at(t, 1, 1);
    assert_commands(0, RESP_READ, REQ_READ, NULL);
    assert_int_equal(Stat_Out.RespSec[5], 0);
    assert_int_equal(Stat_Out.ReqSec[5], 0);
    assert_true(Stat_Out.RespAvg == 4.0f);
    assert_true(Stat_Out.ReqAvg == 4.0f);
    vplat_tool_absent("spiWrite", 0);

    vplat_fail_command(RESP_READ);
    vplat_on_command(REQ_READ, "spiWrite\nregister 24\n");
    cycle_at(t + 1, 1, 1);
    assert_int_equal(Stat_Out.RespSec[6], 0);
    assert_int_equal(Stat_Out.ReqSec[6], 0);
    assert_true(Stat_Out.RespAvg == 2.0f);

    vplat_on_command(RESP_READ, spi_output("AA AA zz yy\n"));
    vplat_on_command(REQ_READ, spi_output("AA AA 05\n")); /* high byte missing */
    cycle_at(t + 2, 1, 1);
    assert_int_equal(Stat_Out.RespSec[7], 0);
    assert_int_equal(Stat_Out.ReqSec[7], 5);
    assert_int_equal(vplat_cmd_count(), 6);
}

static void test_byte_order_of_reading(void **state)
{
    (void)state;
    /* Interfaces: L at character 6, H at character 8 (after the blank):
     * the fifth line "AA AA 34 12" is 0x1234. */
    vplat_on_command(RESP_READ, spi_output("AA AA 34 12\n"));
    vplat_on_command(REQ_READ, spi_output("AA AA FF 00\n"));
    cycle_at(utc_time(2026, 11, 16, 13, 27, 46), 0, 0);
    assert_int_equal(Stat_Out.RespSec[46], 4660);
    assert_int_equal(Stat_Out.ReqSec[46], 255);
}

int main(void)
{
#define T(f) cmocka_unit_test_setup_teardown(f, counters_setup, board_teardown)
    const struct CMUnitTest tests[] = {
        T(test_flag_off_reads_counters),
        T(test_enable_file_contents),
        T(test_timeinfo_refreshed),
        T(test_minute_total_at_12_34_00),
        T(test_second_59_and_second_0),
        T(test_hour_total_at_05_00_00),
        T(test_hour_driven_second_by_second),
        T(test_hour_sum_wraps_at_00_10_00),
        T(test_hour_sum_order_across_midnight),
        T(test_minute_sum_order),
        T(test_day_total_on_the_first),
        T(test_day_driven_second_by_second),
        T(test_day_total_on_other_days),
        T(test_missing_reading),
        T(test_running_average),
        T(test_counter_read_failures_count_as_zero),
        T(test_byte_order_of_reading),
    };
#undef T
    return cmocka_run_group_tests(tests, NULL, NULL);
}
