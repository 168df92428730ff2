/* Oscillator steering (Part 3.2): the law, the clamps, the calibration file,
 * register 1, the DAC words and the chart files. */
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cycle/ThreadINT.h"
#include "cycle/steering.h"
#include "daemon/shared.h"
#include "test_support.h"

#define REG2 "./spiWrite -m 0 -l 3 -d 1 2 0"
#define CENTRE_FILE "/usr/bin/Zarvent/dac_voltage"
#define CHART_DIR "/ramcache/zarvent"

static int steering_board(void **state)
{
    board_setup(state);
    vplat_gpio_provide(96, 1, 0);
    vplat_gpio_provide(118, 1, 0);
    vplat_gpio_provide(106, 1, 1);
    vplat_reg_set(2, 0x1E);
    memset(Command_Out, 0, sizeof Command_Out);
    DAC_VOLTAGE = 32768;
    Save_Sync = 32768;
    Sync_Offset = 0;
    Summ_prev = 0;
    Intg = 0;
    Sync_En = 1;
    steering_chart_forget();
    timeinfo_refresh(T_EXAMPLE);
    return 0;
}

/* One steered second with the given offset text at Command_Out 53; returns
 * the DAC code sent (command 3). */
static unsigned steer(const char *offset_text)
{
    command_out_put(CO_OFFSET, offset_text, strlen(offset_text) + 1);
    size_t words = vplat_dac_count();
    Calculate_offset();
    assert_int_equal(vplat_dac_count(), words + 1);
    const struct vplat_dac_word *w = vplat_dac_at(words);
    assert_int_equal(w->bits, 24);
    assert_int_equal(w->word >> 20, 3);
    assert_int_equal(w->word & 0xF, 0);
    return (w->word >> 4) & 0xFFFF;
}

static void test_worked_example(void **state)
{
    (void)state;
    /* Part 3.2 worked example: four seconds from a fresh start. */
    static const struct {
        const char *offset;
        int32_t S;
        int64_t Intg;
        int64_t d;
        unsigned code;
        const char *chart;
    } rows[] = {
        {"1000", 50, 1050, -950, 32840, "1000"},
        {"1000", 97, 2147, -903, 32862, "1000"},
        {"-200", 82, 2029, 282, 32796, "-200"},
        {"30000", 577, 12606, -9423, 33532, "10000"},
    };
    vplat_set_command_cost_us(10);
    char expected[512] = "";
    for (size_t i = 0; i < 4; i++) {
        timeinfo_refresh(T_EXAMPLE + (time_t)i);
        int32_t summ_before = Summ_prev;
        int64_t intg_before = Intg;
        size_t from = vplat_cmd_count();
        unsigned code = steer(rows[i].offset);
        assert_int_equal(code, rows[i].code);
        assert_int_equal(Summ_prev, rows[i].S);
        assert_int_equal(Intg, rows[i].Intg);
        assert_int_equal(Save_Sync, (int32_t)rows[i].code);
        /* d is not kept; the pure law gives it. */
        struct steering_step s =
            steering_law(32768, strtol(rows[i].offset, NULL, 10), summ_before, intg_before);
        assert_int_equal(s.d, rows[i].d);
        assert_int_equal(s.u, (int32_t)rows[i].code);
        /* Step 10 then step 11: register 1 from register 2 (0x1E) with bit 0
         * set, mode "w", and the DAC word after it. */
        size_t next = assert_commands(from, REG2, "./spiWrite -m 1 -l 3 -d 1 1 31 0", NULL);
        assert_int_equal(vplat_cmd_count(), next);
        assert_string_equal(vplat_cmd_mode(from + 1), "w");
        assert_true(vplat_dac_at(vplat_dac_count() - 1)->t_us >= vplat_cmd_time_us(from + 1));
        char line[80];
        snprintf(line, sizeof line, "[new Date(\"11/16/2026 13:27:%02d\"), %s],\n", 46 + (int)i,
                 rows[i].chart);
        strcat(expected, line);
    }
    assert_int_equal(Sync_Offset, 10000);
    assert_file(CHART_DIR "/ptp_data_2026~11~16_13-27", expected);
}

static void test_offset_clamped(void **state)
{
    (void)state;
    /* E3.2-1: 25000 is used as 10000, -25000 as -10000; the chart shows them. */
    steer("25000");
    assert_int_equal(Sync_Offset, 10000);
    assert_int_equal(Summ_prev, 500);
    steer("-25000");
    assert_int_equal(Sync_Offset, -10000);
    assert_file(CHART_DIR "/ptp_data_2026~11~16_13-27",
                "[new Date(\"11/16/2026 13:27:46\"), 10000],\n"
                "[new Date(\"11/16/2026 13:27:46\"), -10000],\n");
    /* The cut text of a half-second offset (Part 3.6) is clamped the same way. */
    steer("-5000000");
    assert_int_equal(Sync_Offset, -10000);
    /* Text that does not start with a number reads as 0. */
    steer("");
    assert_int_equal(Sync_Offset, 0);
    steer("abc");
    assert_int_equal(Sync_Offset, 0);
}

static void test_small_offset_truncates(void **state)
{
    (void)state;
    /* E3.2-2: 19 ns: S = 0.95 truncates to 0, Intg grows by 19, code 32769. */
    assert_int_equal(steer("19"), 32769);
    assert_int_equal(Summ_prev, 0);
    assert_int_equal(Intg, 19);
    assert_int_equal(Save_Sync, 32769);
}

static void test_negative_filter_truncates_toward_zero(void **state)
{
    (void)state;
    /* E3.2-3: -0.95 gives 0, -1.9 gives -1. */
    Summ_prev = -1;
    steer("0");
    assert_int_equal(Summ_prev, 0);
    Summ_prev = -2;
    steer("0");
    assert_int_equal(Summ_prev, -1);
    struct steering_step s = steering_law(32768, 0, -1, 0);
    assert_int_equal(s.S, 0);
    s = steering_law(32768, 0, -2, 0);
    assert_int_equal(s.S, -1);
    assert_int_equal(s.Intg, -1);
    assert_int_equal(s.d, -1);
    /* u = 32768 - 0.4 - 0.005 + 0.05 = 32767.645 truncates to 32767. */
    assert_int_equal(s.u, 32767);
}

static void test_code_clamped_to_dac_range(void **state)
{
    (void)state;
    /* E3.2-4: a computed 70000 is sent as 65535, -5 as 0. */
    vplat_write_file(CENTRE_FILE, "70000\n");
    assert_int_equal(steer("0"), 65535);
    assert_int_equal(Save_Sync, 65535);
    assert_int_equal(vplat_dac_at(vplat_dac_count() - 1)->word, 0x3FFFF0);
    vplat_write_file(CENTRE_FILE, "-5\n");
    assert_int_equal(steer("0"), 0);
    assert_int_equal(Save_Sync, 0);
    assert_int_equal(vplat_dac_at(vplat_dac_count() - 1)->word, 0x300000);
    assert_int_equal(steering_dac_code(70000), 65535);
    assert_int_equal(steering_dac_code(-5), 0);
    assert_int_equal(steering_dac_code(INT32_MIN), 0);
    assert_int_equal(steering_dac_code(65535), 65535);
    assert_int_equal(steering_dac_code(0), 0);
}

static void test_centre_reloaded_every_second(void **state)
{
    (void)state;
    /* E3.2-5: the centre changes to 40000 while running; the next code moves
     * by 7232 against the same second with the old centre, and the move is
     * not repeated in the following second. */
    vplat_write_file(CENTRE_FILE, "32768\n");
    assert_int_equal(steer("500"), 32804);
    int32_t summ = Summ_prev;
    int64_t intg = Intg;
    struct steering_step same_centre = steering_law(32768, 500, summ, intg);
    vplat_write_file(CENTRE_FILE, "40000\n");
    unsigned moved = steer("500");
    assert_int_equal(moved, 40047);
    assert_int_equal((int)moved - same_centre.u, 7232);
    assert_int_equal(DAC_VOLTAGE, 40000);
    unsigned third = steer("500");
    assert_in_range(third, 40047, 40047 + 40); /* only the law moves it now */
    /* With no offset and a fresh state the move is exactly 7232. */
    Summ_prev = 0;
    Intg = 0;
    vplat_write_file(CENTRE_FILE, "32768\n");
    assert_int_equal(steer("0"), 32768);
    vplat_write_file(CENTRE_FILE, "40000\n");
    assert_int_equal(steer("0"), 40000);
}

static void test_missing_or_bad_centre_file(void **state)
{
    (void)state;
    /* Part 3.2 failure handling: missing file or no number: previous centre. */
    DAC_VOLTAGE = 33000;
    assert_int_equal(steer("0"), 33000);
    vplat_write_file(CENTRE_FILE, "abc\n");
    assert_int_equal(steer("0"), 33000);
    vplat_write_file(CENTRE_FILE, "");
    assert_int_equal(steer("0"), 33000);
    vplat_write_file(CENTRE_FILE, "  32000 junk\n");
    assert_int_equal(steer("0"), 32000);
    assert_int_equal(DAC_VOLTAGE, 32000);
}

static void test_minute_change_starts_new_file(void **state)
{
    (void)state;
    /* E3.2-6: 14:05:59 and 14:06:00 go to two files. */
    timeinfo_refresh(utc_time(2026, 11, 16, 14, 5, 59));
    steer("12");
    timeinfo_refresh(utc_time(2026, 11, 16, 14, 6, 0));
    steer("-7");
    assert_file(CHART_DIR "/ptp_data_2026~11~16_14-05",
                "[new Date(\"11/16/2026 14:05:59\"), 12],\n");
    assert_file(CHART_DIR "/ptp_data_2026~11~16_14-06",
                "[new Date(\"11/16/2026 14:06:00\"), -7],\n");
    /* Single-digit fields are zero-padded in both the name and the line. */
    timeinfo_refresh(utc_time(2027, 1, 2, 3, 4, 5));
    steer("1");
    assert_file(CHART_DIR "/ptp_data_2027~01~02_03-04",
                "[new Date(\"01/02/2027 03:04:05\"), 1],\n");
}

static void test_chart_appends_to_existing_file(void **state)
{
    (void)state;
    /* Appended to, never truncated. */
    vplat_write_file(CHART_DIR "/ptp_data_2026~11~16_13-27", "earlier\n");
    steer("3");
    assert_file(CHART_DIR "/ptp_data_2026~11~16_13-27",
                "earlier\n[new Date(\"11/16/2026 13:27:46\"), 3],\n");
}

static void test_chart_unwritable_dac_still_written(void **state)
{
    (void)state;
    /* Part 3.2 failure handling: the point is dropped, the DAC is written. */
    char dir[1024];
    snprintf(dir, sizeof dir, "%s", vplat_path(CHART_DIR));
    assert_int_equal(rmdir(dir), 0);
    assert_int_equal(steer("1000"), 32840);
    assert_false(vplat_exists(CHART_DIR "/ptp_data_2026~11~16_13-27"));
    assert_int_equal(steering_chart_count(), 0);
    assert_commands(0, REG2, "./spiWrite -m 1 -l 3 -d 1 1 31 0", NULL);
}

static void test_register2_read_failure_skips_register1(void **state)
{
    (void)state;
    /* Part 2.2 "Left to the implementer": no value from the register, no
     * write; the DAC is written regardless (Part 3.2 failure handling). */
    vplat_fail_command(REG2);
    assert_int_equal(steer("1000"), 32840);
    assert_commands(0, REG2, NULL);
    assert_int_equal(vplat_cmd_count(), 1);
    vplat_on_command(REG2, "1\n2\n3\n");
    steer("0");
    assert_int_equal(vplat_cmd_count(), 2);
    vplat_on_command(REG2, spi_output("AA AA 00\n"));
    steer("0");
    assert_commands(2, REG2, "./spiWrite -m 1 -l 3 -d 1 1 1 0", NULL);
}

static void test_saturating_conversions(void **state)
{
    (void)state;
    /* Part 3.2 "Left to the implementer": saturate at the 32-bit limits. */
    assert_int_equal(steering_to_i32(3e9), INT32_MAX);
    assert_int_equal(steering_to_i32(2147483647.9), INT32_MAX);
    assert_int_equal(steering_to_i32(2147483648.0), INT32_MAX);
    assert_int_equal(steering_to_i32(-3e9), INT32_MIN);
    assert_int_equal(steering_to_i32(-2147483648.9), INT32_MIN);
    assert_int_equal(steering_to_i32(-2147483649.0), INT32_MIN);
    assert_int_equal(steering_to_i32(-1.9), -1);
    assert_int_equal(steering_to_i32(1.9), 1);
    assert_int_equal(steering_to_i32(-0.95), 0);
}

static void test_integral_is_wider_than_32_bits(void **state)
{
    (void)state;
    /* Part 3.2 "Left to the implementer": Intg is a 64-bit accumulator; past
     * the 32-bit limit it keeps counting and the code stays clamped. */
    Intg = INT32_MAX;
    Summ_prev = 10000;
    assert_int_equal(steer("10000"), 65535);
    assert_int_equal(Intg, (int64_t)INT32_MAX + 20000);
    /* u = 32768 + 4000 + 0.005 x (2^31 + 19999) is far beyond 32 bits: saturated. */
    struct steering_step s = steering_law(32768, 10000, 10000, (int64_t)1 << 40);
    assert_int_equal(s.u, INT32_MAX);
    s = steering_law(32768, -10000, -10000, -((int64_t)1 << 40));
    assert_int_equal(s.u, INT32_MIN);
    assert_int_equal(steering_dac_code(s.u), 0);
    Intg = -((int64_t)1 << 40);
    assert_int_equal(steer("-10000"), 0);
}

/* ---- DAC_DEFAULTS ---- */

static void test_defaults_from_file(void **state)
{
    (void)state;
    /* Part 3.2 interfaces: load the centre, then command 4 with 2048 and
     * command 3 with the centre. */
    vplat_write_file(CENTRE_FILE, "33000\n");
    DAC_DEFAULTS();
    assert_int_equal(DAC_VOLTAGE, 33000);
    assert_int_equal(vplat_dac_count(), 2);
    assert_int_equal(vplat_dac_at(0)->word, 0x408000);
    assert_int_equal(vplat_dac_at(1)->word, 0x300000 + 33000 * 16);
    assert_int_equal(vplat_cmd_count(), 0);
}

static void test_defaults_without_file(void **state)
{
    (void)state;
    DAC_DEFAULTS();
    assert_int_equal(DAC_VOLTAGE, 32768);
    assert_int_equal(vplat_dac_count(), 2);
    assert_int_equal(vplat_dac_at(1)->word, 0x380000);
}

static void test_defaults_clamp_out_of_range_centre(void **state)
{
    (void)state;
    /* Part 2.3 "Left to the implementer": a centre outside 0..65535 is
     * clamped before SPIWriteInt; a negative one becomes 0, not 65535. */
    vplat_write_file(CENTRE_FILE, "-7\n");
    DAC_DEFAULTS();
    assert_int_equal(DAC_VOLTAGE, -7);
    assert_int_equal(vplat_dac_at(1)->word, 0x300000);
    vplat_write_file(CENTRE_FILE, "70000\n");
    DAC_DEFAULTS();
    assert_int_equal(DAC_VOLTAGE, 70000);
    assert_int_equal(vplat_dac_at(3)->word, 0x3FFFF0);
    vplat_write_file(CENTRE_FILE, "x\n");
    DAC_DEFAULTS();
    assert_int_equal(DAC_VOLTAGE, 70000);
    assert_int_equal(vplat_dac_count(), 6);
    for (size_t i = 0; i < 6; i++)
        assert_int_equal(vplat_dac_at(i)->malformed, 0);
}

/* ---- chart-file bound ---- */

/* Number of chart files (names with "~") in the output directory. */
static int chart_files_on_disk(void)
{
    DIR *d = opendir(vplat_path(CHART_DIR));
    assert_non_null(d);
    int count = 0;
    for (struct dirent *e = readdir(d); e; e = readdir(d))
        if (strncmp(e->d_name, "ptp_data_", 9) == 0 && strchr(e->d_name, '~'))
            count++;
    closedir(d);
    return count;
}

static void chart_name(time_t t, char *out, size_t size)
{
    struct tm tm;
    gmtime_r(&t, &tm);
    snprintf(out, size, CHART_DIR "/ptp_data_%d~%02d~%02d_%02d-%02d", tm.tm_year + 1900,
             tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min);
}

static void test_chart_files_bounded(void **state)
{
    (void)state;
    /* Part 3.2 "Left to the implementer": after CHART_FILES_KEPT + k minutes
     * of steering, exactly CHART_FILES_KEPT chart files remain, the newest. */
    enum { EXTRA = 3 };
    vplat_write_file(CHART_DIR "/ptp_data_0000_00_01", ""); /* Part 1.1 placeholders */
    time_t start = utc_time(2026, 11, 16, 0, 0, 30);
    char name[96], cmd[128];
    for (int minute = 0; minute < CHART_FILES_KEPT + EXTRA; minute++) {
        time_t t = start + (time_t)minute * 60;
        timeinfo_refresh(t);
        steer("5");
        timeinfo_refresh(t + 1); /* a second point in the same minute */
        steer("6");
        if (minute == CHART_FILES_KEPT - 1) {
            assert_int_equal(chart_files_on_disk(), CHART_FILES_KEPT);
            assert_int_equal(vplat_cmd_occurrences("rm -f " CHART_DIR "/ptp_data_2026~11~16_00-00"),
                             0);
        }
    }
    assert_int_equal(chart_files_on_disk(), CHART_FILES_KEPT);
    assert_int_equal(steering_chart_count(), CHART_FILES_KEPT);
    for (int minute = 0; minute < EXTRA; minute++) {
        chart_name(start + (time_t)minute * 60, name, sizeof name);
        assert_false(vplat_exists(name));
        snprintf(cmd, sizeof cmd, "rm -f %s", name);
        assert_int_equal(vplat_cmd_occurrences(cmd), 1);
    }
    for (int minute = EXTRA; minute < CHART_FILES_KEPT + EXTRA; minute++) {
        chart_name(start + (time_t)minute * 60, name, sizeof name);
        assert_true(vplat_exists(name));
    }
    /* The newest file holds both points of its minute. */
    chart_name(start + (time_t)(CHART_FILES_KEPT + EXTRA - 1) * 60, name, sizeof name);
    assert_file(name, "[new Date(\"11/16/2026 16:42:30\"), 5],\n"
                      "[new Date(\"11/16/2026 16:42:31\"), 6],\n");
    /* The removal runs right after the first point of the new minute. */
    long rm = vplat_cmd_find("rm -f " CHART_DIR "/ptp_data_2026~11~16_00-00", 0);
    assert_true(rm > 0);
    assert_string_equal(vplat_cmd(rm - 1), "./spiWrite -m 1 -l 3 -d 1 1 31 0");
    assert_true(vplat_exists(CHART_DIR "/ptp_data_0000_00_01"));
}

static void test_chart_clock_back_no_duplicate(void **state)
{
    (void)state;
    /* A clock stepped back into a minute already kept does not count twice. */
    timeinfo_refresh(utc_time(2026, 11, 16, 10, 0, 0));
    steer("1");
    timeinfo_refresh(utc_time(2026, 11, 16, 10, 1, 0));
    steer("1");
    timeinfo_refresh(utc_time(2026, 11, 16, 10, 0, 30));
    steer("1");
    assert_int_equal(steering_chart_count(), 2);
    assert_file(CHART_DIR "/ptp_data_2026~11~16_10-00",
                "[new Date(\"11/16/2026 10:00:00\"), 1],\n"
                "[new Date(\"11/16/2026 10:00:30\"), 1],\n");
}

/* ---- the same codes on every architecture ---- */

static uint32_t xorshift32(uint32_t *s)
{
    uint32_t x = *s;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    *s = x;
    return x;
}

static uint64_t fnv1a(uint64_t h, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; i++) {
        h ^= (value >> (8 * i)) & 0xFFu;
        h *= 0x100000001b3ULL;
    }
    return h;
}

/* Computed once on x86-64 (and reproduced independently with IEEE doubles
 * rounded after every operation); the same test under qemu-arm must match. */
#define GOLDEN_CODES 0x84cf137e04568ee5ULL
#define GOLDEN_U 0x0359fbb1951064adULL
#define GOLDEN_EXACT 0x468b8243bc823017ULL

static void test_same_codes_on_every_architecture(void **state)
{
    (void)state;
    /* Part 3.2: double precision, this evaluation order, no fused
     * multiply-add, truncation: 100000 pseudo-random offsets in +-30000 ns
     * give bit-identical codes on x86 and on the board's ARM. */
    uint32_t seed = 0x2545F491u;
    uint64_t codes = 0xcbf29ce484222325ULL;
    uint64_t raw_u = 0xcbf29ce484222325ULL;
    uint64_t exact = 0xcbf29ce484222325ULL;
    int32_t summ = 0;
    int64_t intg = 0;
    int clamped = 0;
    for (int i = 0; i < 100000; i++) {
        long offset = (long)(xorshift32(&seed) % 60001u) - 30000;
        struct steering_step s = steering_law(32768, offset, summ, intg);
        summ = s.S;
        intg = s.Intg;
        uint32_t code = steering_dac_code(s.u);
        clamped += code == 0 || code == 65535;
        codes = fnv1a(codes, code, 2);
        raw_u = fnv1a(raw_u, (uint32_t)s.u, 4);
        /* The double of step 6 bit for bit, before truncation hides a last-place difference. */
        uint64_t pattern;
        memcpy(&pattern, &s.exact, sizeof pattern);
        exact = fnv1a(exact, (uint32_t)pattern, 4);
        exact = fnv1a(exact, (uint32_t)(pattern >> 32), 4);
    }
    assert_true(clamped < 100000); /* the sequence exercises the law, not only the clamp */
    assert_int_equal(codes, GOLDEN_CODES);
    assert_int_equal(raw_u, GOLDEN_U);
    assert_int_equal(exact, GOLDEN_EXACT);
    assert_int_equal(summ, -575);
    assert_int_equal(intg, -2774752);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_worked_example, steering_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_offset_clamped, steering_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_small_offset_truncates, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_negative_filter_truncates_toward_zero, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_code_clamped_to_dac_range, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_centre_reloaded_every_second, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_missing_or_bad_centre_file, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_minute_change_starts_new_file, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_chart_appends_to_existing_file, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_chart_unwritable_dac_still_written, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_register2_read_failure_skips_register1, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_saturating_conversions, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_integral_is_wider_than_32_bits, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_defaults_from_file, steering_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_defaults_without_file, steering_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_defaults_clamp_out_of_range_centre, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_chart_files_bounded, steering_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_chart_clock_back_no_duplicate, steering_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_same_codes_on_every_architecture, steering_board,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
