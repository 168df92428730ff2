/* Alarm logic (Part 5.2): ControlAlarm, alone and in the supervision pass. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "daemon/shared.h"
#include "hardware/registers.h"
#include "statistics/Statistic.h"
#include "supervision/ThreadLED.h"
#include "test_support.h"

#define SEC 1000000LL
#define Q_SYS "ntpq -p | grep '*G'"
#define Q_PPS "ntpq -p | grep 'oG'"
#define REG2_WRITE_PREFIX "./spiWrite -m 1 -l 3 -d 1 2 "
#define ON76 "echo 1 > /sys/class/gpio/gpio76/value"
#define OFF76 "echo 0 > /sys/class/gpio/gpio76/value"
#define ON77 "echo 1 > /sys/class/gpio/gpio77/value"
#define OFF77 "echo 0 > /sys/class/gpio/gpio77/value"

/* The cycle thread's start time in the event time text (Part 3.1), and a
 * stamp of its own in 143-160. */
static const char START_TIME[] = "Nov 16 2026 13:27:40.500";
static const char START_STAMP[] = "eea5834c.80000000 ";

static int setup(void **state)
{
    board_setup(state); /* line 176: input at 1; line 85: output at 1 */
    supervision_lines();
    vplat_reg_set(2, 0x1E);
    memset(Command_Out, 0, sizeof Command_Out);
    command_out_put(CO_EVENT, START_TIME, sizeof START_TIME);
    command_out_put(CO_STAMP, START_STAMP, CO_STAMP_LEN);
    atomic_store(&Alarm, 0);
    UptimeFlag = 1;
    alarm_latch = 0;
    over = 0;
    event = 0;
    now_en = 0;
    timeinfo_refresh(T_EXAMPLE);
    return 0;
}

static void assert_event_text(const char *want)
{
    char got[CO_TIME_LEN + 1];
    command_out_get(CO_EVENT, got, CO_TIME_LEN + 1);
    assert_int_equal(got[CO_TIME_LEN], '\0'); /* character 141 ends the text */
    assert_string_equal(got, want);
}

static void assert_stamp(const char *want)
{
    char got[CO_STAMP_LEN + 1];
    command_out_get(CO_STAMP, got, CO_STAMP_LEN);
    got[CO_STAMP_LEN] = '\0';
    assert_string_equal(got, want);
}

/* The values written to register 2 from command index from on, as text
 * "31,30,". */
static void reg2_writes(size_t from, char *out, size_t size)
{
    size_t len = 0;
    out[0] = '\0';
    for (size_t i = from; i < vplat_cmd_count(); i++) {
        const char *c = vplat_cmd(i);
        if (strncmp(c, REG2_WRITE_PREFIX, strlen(REG2_WRITE_PREFIX)) == 0) {
            int v = atoi(c + strlen(REG2_WRITE_PREFIX));
            len += (size_t)snprintf(out + len, size - len, "%d,", v);
        }
    }
}

static void assert_page_has(const char *text)
{
    FileWrite();
    char *page = vplat_read_file("/ramcache/zarvent/ntp_data.txt");
    assert_non_null(page);
    if (strstr(page, text) == NULL)
        fail_msg("status page lacks \"%s\":\n%s", text, page);
    free(page);
}

static void test_first_pass_keeps_start_time(void **state)
{
    (void)state;
    /* E5.2-1: with a GPS peer and line 176 high, the first pass leaves the
     * event time text at the cycle thread's start time, and the status page
     * shows "Uptime from:" with that time. */
    vplat_set_peer(VPEER_SYSTEM);
    assert_int_equal(ControlAlarm(), 0);
    assert_int_equal(assert_commands(0, Q_SYS, REG2_READ_CMD, "./spiWrite -m 1 -l 3 -d 1 2 31 0",
                                     OFF76, ON77, NULL),
                     vplat_cmd_count());
    assert_string_equal(vplat_cmd_mode(0), "r");
    assert_string_equal(vplat_cmd_mode(1), "r");
    assert_string_equal(vplat_cmd_mode(2), "r");
    assert_string_equal(vplat_cmd_mode(3), "w");
    assert_string_equal(vplat_cmd_mode(4), "w");
    assert_int_equal(atomic_load(&Alarm), 0);
    assert_int_equal(UptimeFlag, 1);
    assert_int_equal(alarm_latch, 0);
    assert_event_text(START_TIME);
    assert_stamp(START_STAMP);
    assert_int_equal(vplat_gpio_level(76), 0);
    assert_int_equal(vplat_gpio_level(77), 1);
    assert_page_has(
        "<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:27:40\n");
}

static void test_pps_peer_is_free_of_alarm(void **state)
{
    (void)state;
    /* Part 5.2 step 1: the PPS peer counts as the GPS reference; the PPS
     * query is asked only after the system-peer query printed nothing. */
    vplat_set_peer(VPEER_PPS);
    ControlAlarm();
    assert_int_equal(assert_commands(0, Q_SYS, Q_PPS, REG2_READ_CMD,
                                     "./spiWrite -m 1 -l 3 -d 1 2 31 0", OFF76, ON77, NULL),
                     vplat_cmd_count());
    assert_int_equal(atomic_load(&Alarm), 0);
}

static void test_first_alarm_pass_records_time(void **state)
{
    (void)state;
    /* E5.2-2: the first alarm pass records its time; further alarm passes
     * do not move it. */
    vplat_set_peer(VPEER_NONE);
    vplat_set_now_us((T_EXAMPLE + 3) * SEC + 500000);
    ControlAlarm();
    size_t end = assert_commands(0, Q_SYS, Q_PPS, REG2_READ_CMD, "./spiWrite -m 1 -l 3 -d 1 2 30 0",
                                 "ntptime", ON76, OFF77, NULL);
    assert_int_equal(end, vplat_cmd_count());
    assert_string_equal(vplat_cmd_mode(4), "r");
    assert_string_equal(vplat_cmd_mode(5), "w");
    assert_string_equal(vplat_cmd_mode(6), "w");
    assert_int_equal(atomic_load(&Alarm), 1);
    assert_int_equal(UptimeFlag, 0);
    assert_int_equal(alarm_latch, 1);
    assert_event_text("Nov 16 2026 13:27:49.500");
    assert_stamp("eea58355.80000000 ");
    assert_int_equal(vplat_gpio_level(76), 1);
    assert_int_equal(vplat_gpio_level(77), 0);
    assert_page_has("<b>Alarm at:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:27:49\n");

    for (int pass = 1; pass <= 3; pass++) {
        vplat_set_now_us((T_EXAMPLE + 3 + 3 * pass) * SEC);
        size_t from = vplat_cmd_count();
        ControlAlarm();
        assert_int_equal(assert_commands(from, Q_SYS, Q_PPS, ON76, OFF77, NULL), vplat_cmd_count());
        assert_event_text("Nov 16 2026 13:27:49.500");
        assert_int_equal(atomic_load(&Alarm), 1);
    }
    assert_int_equal(vplat_cmd_occurrences("ntptime"), 1);
}

static void test_alarm_for_one_pass(void **state)
{
    (void)state;
    /* E5.2-3: an alarm that lasts one pass and clears on the next records two
     * times: the alarm's start (then overwritten) and the clear time. */
    vplat_set_peer(VPEER_NONE);
    vplat_set_now_us((T_EXAMPLE + 3) * SEC + 500000);
    ControlAlarm();
    assert_event_text("Nov 16 2026 13:27:49.500");
    assert_int_equal(atomic_load(&Alarm), 1);

    vplat_set_peer(VPEER_SYSTEM);
    vplat_set_now_us((T_EXAMPLE + 7) * SEC);
    size_t from = vplat_cmd_count();
    ControlAlarm();
    assert_int_equal(assert_commands(from, Q_SYS, REG2_READ_CMD, "./spiWrite -m 1 -l 3 -d 1 2 31 0",
                                     "ntptime", OFF76, ON77, NULL),
                     vplat_cmd_count());
    assert_event_text("Nov 16 2026 13:27:53.000");
    assert_stamp("eea58359.00000000 ");
    assert_int_equal(atomic_load(&Alarm), 0);
    assert_int_equal(UptimeFlag, 1);
    assert_int_equal(alarm_latch, 0);
    assert_int_equal(vplat_cmd_occurrences("ntptime"), 2);
    assert_page_has(
        "<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:27:53\n");

    /* Staying free of alarm captures nothing more. */
    vplat_set_now_us((T_EXAMPLE + 10) * SEC);
    ControlAlarm();
    assert_int_equal(vplat_cmd_occurrences("ntptime"), 2);
    assert_event_text("Nov 16 2026 13:27:53.000");
}

static void test_line_176_low_is_alarm(void **state)
{
    (void)state;
    /* Part 5.2 step 2: a GPS peer with line 176 at 0 is an alarm. */
    vplat_set_peer(VPEER_SYSTEM);
    vplat_gpio_set_input(176, 0);
    ControlAlarm();
    assert_int_equal(assert_commands(0, Q_SYS, REG2_READ_CMD, "./spiWrite -m 1 -l 3 -d 1 2 30 0",
                                     "ntptime", ON76, OFF77, NULL),
                     vplat_cmd_count());
    assert_int_equal(vplat_gpio_reads(176), 1);
    assert_int_equal(atomic_load(&Alarm), 1);
}

static void test_no_reference_does_not_read_176(void **state)
{
    (void)state;
    /* Part 5.2 step 1: without a reference the pass goes straight to the
     * alarm branch. */
    vplat_set_peer(VPEER_NONE);
    ControlAlarm();
    assert_int_equal(vplat_gpio_reads(176), 0);
    assert_int_equal(atomic_load(&Alarm), 1);
}

static void test_loop_bit_low_for_one_pass(void **state)
{
    (void)state;
    /* E5.2-4: a GPS peer present but line 176 at 0: the loop sets the bit
     * each pass, the alarm clears it on the first alarm pass only, so the
     * bit is low for one pass and high from the next on; Alarm stays 1 and
     * lines 76/77 stay 1/0. */
    vplat_set_peer(VPEER_SYSTEM);
    vplat_gpio_set_input(176, 0);
    char w[64];
    const char *expected[] = {"31,30,", "31,", "31,", "31,"};
    const int bit_after[] = {0, 1, 1, 1};
    for (int pass = 0; pass < 4; pass++) {
        size_t from = vplat_cmd_count();
        led_pass();
        reg2_writes(from, w, sizeof w);
        assert_string_equal(w, expected[pass]);
        assert_int_equal(vplat_reg_get(2) & 1, bit_after[pass]);
        assert_int_equal(atomic_load(&Alarm), 1);
        assert_int_equal(vplat_gpio_level(76), 1);
        assert_int_equal(vplat_gpio_level(77), 0);
        vplat_set_now_us(vplat_now_us() + 3 * SEC);
    }
    assert_int_equal(vplat_cmd_occurrences("ntptime"), 1);
}

static void test_loop_no_peer_clears_once_more(void **state)
{
    (void)state;
    /* E5.2-5: with no GPS peer the loop has already cleared the bit; the
     * alarm clears it again at most once. */
    vplat_set_peer(VPEER_NONE);
    vplat_reg_set(2, 0x1F);
    char w[64];
    const char *expected[] = {"30,30,", "30,", "30,"};
    for (int pass = 0; pass < 3; pass++) {
        size_t from = vplat_cmd_count();
        led_pass();
        reg2_writes(from, w, sizeof w);
        assert_string_equal(w, expected[pass]);
        assert_int_equal(vplat_reg_get(2), 30);
        assert_int_equal(atomic_load(&Alarm), 1);
    }
}

static void test_new_episode_clears_again(void **state)
{
    (void)state;
    /* Part 5.2: a clear pass releases the latch, so the next alarm episode
     * clears the bit once again. */
    vplat_set_peer(VPEER_NONE);
    ControlAlarm();
    ControlAlarm();
    vplat_set_peer(VPEER_SYSTEM);
    ControlAlarm();
    vplat_set_peer(VPEER_NONE);
    ControlAlarm();
    char w[64];
    reg2_writes(0, w, sizeof w);
    assert_string_equal(w, "30,31,30,");
    assert_int_equal(alarm_latch, 1);
    assert_int_equal(vplat_cmd_occurrences("ntptime"), 3);
}

static void test_reference_changes_between_queries(void **state)
{
    (void)state;
    /* E5.2-6: the reference is asked anew here; a change of ntpd's peer
     * between the loop's reference step and this function makes the
     * reference name and the alarm state disagree for one pass. */
    vplat_set_peer(VPEER_NONE);
    vplat_on_command_once(
        Q_SYS, "*GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   0.003\n");
    led_pass();
    char name[18];
    command_out_text(CO_REF_NAME, name, sizeof name);
    assert_string_equal(name, "GPS+GLONASS");
    assert_int_equal(atomic_load(&Alarm), 1);
    assert_int_equal(vplat_gpio_level(72), 1);
    assert_int_equal(vplat_gpio_level(73), 1);
    assert_int_equal(vplat_gpio_level(76), 1);
    assert_int_equal(vplat_gpio_level(77), 0);
    /* The next pass agrees again. */
    led_pass();
    command_out_text(CO_REF_NAME, name, sizeof name);
    assert_string_equal(name, "NULL");
    assert_int_equal(atomic_load(&Alarm), 1);
}

static void test_ntptime_failing(void **state)
{
    (void)state;
    /* Part 5.2 failure handling: ntptime failing: the state changes
     * regardless. Part 5.2 "Left to the implementer": nothing is copied that
     * the tool did not print, so the event time text stays as it was. */
    vplat_set_peer(VPEER_NONE);
    vplat_fail_command("ntptime");
    ControlAlarm();
    assert_int_equal(atomic_load(&Alarm), 1);
    assert_int_equal(UptimeFlag, 0);
    assert_event_text(START_TIME);
    assert_stamp(START_STAMP);
    assert_int_equal(vplat_gpio_level(76), 1);
}

static void test_ntptime_short_or_garbage(void **state)
{
    (void)state;
    /* ntptime printing one line only, a short second line, or junk: the
     * slots stay as they were; the state changes. */
    vplat_set_peer(VPEER_NONE);
    vplat_on_command_once("ntptime", "ntp_gettime() returns code 5 (ERROR)\n");
    ControlAlarm();
    assert_int_equal(atomic_load(&Alarm), 1);
    assert_event_text(START_TIME);

    vplat_set_peer(VPEER_SYSTEM);
    vplat_on_command_once("ntptime", "ntp_gettime() returns code 0 (OK)\n  time eea58352\n");
    ControlAlarm();
    assert_int_equal(atomic_load(&Alarm), 0);
    assert_event_text(START_TIME);
    assert_stamp(START_STAMP);

    vplat_set_peer(VPEER_NONE);
    vplat_on_command_once("ntptime", "\x01\xff\n\xfe\x80 junk\n");
    ControlAlarm();
    assert_int_equal(atomic_load(&Alarm), 1);
    assert_event_text(START_TIME);
    assert_int_equal(vplat_cmd_occurrences("ntptime"), 3);
}

static void test_ntpsec_format_taken_by_position(void **state)
{
    (void)state;
    /* Part 5.2: the copies are taken by position, not by searching; a second
     * line long enough is copied whatever it holds (ntpsec's ISO form). */
    vplat_set_peer(VPEER_NONE);
    vplat_on_command_once("ntptime",
                          "ntp_gettime() returns code 0 (OK)\n"
                          "  time eeade443.45e05000 2026-11-22T21:59:31.272Z, (.272954),\n");
    ControlAlarm();
    assert_stamp("eeade443.45e05000 ");
    assert_event_text("1-22T21:59:31.272Z, (.27");
}

static void test_register_read_fails(void **state)
{
    (void)state;
    /* Part 2.2 "Left to the implementer": a failed read of register 2 is
     * never written back; the pass still completes. */
    vplat_set_peer(VPEER_NONE);
    vplat_fail_command(REG2_READ_CMD);
    assert_int_equal(ControlAlarm(), 0);
    assert_int_equal(assert_commands(0, Q_SYS, Q_PPS, REG2_READ_CMD, "ntptime", ON76, OFF77, NULL),
                     vplat_cmd_count());
    vplat_set_peer(VPEER_SYSTEM);
    vplat_on_command(REG2_READ_CMD, "spiWrite\nregister 2\n");
    size_t from = vplat_cmd_count();
    ControlAlarm();
    assert_int_equal(assert_commands(from, Q_SYS, REG2_READ_CMD, "ntptime", OFF76, ON77, NULL),
                     vplat_cmd_count());
    assert_int_equal(vplat_reg_get(2), 0x1E);
}

static void test_ntpq_cannot_start(void **state)
{
    (void)state;
    /* Part 5.2 failure handling: ntpq failing: both queries report absent,
     * which is an alarm. */
    vplat_fail_command(Q_SYS);
    vplat_fail_command(Q_PPS);
    ControlAlarm();
    assert_int_equal(atomic_load(&Alarm), 1);
    vplat_tool_absent("ntpq", 1);
    ControlAlarm();
    assert_int_equal(atomic_load(&Alarm), 1);
}

static void test_indicator_commands_cannot_start(void **state)
{
    (void)state;
    /* Part 5.2 "Left to the implementer": a command that cannot be started
     * is not handled; the pass still completes. */
    vplat_set_peer(VPEER_NONE);
    vplat_fail_command(ON76);
    vplat_fail_command(OFF77);
    assert_int_equal(ControlAlarm(), 0);
    assert_int_equal(atomic_load(&Alarm), 1);
    assert_event_text("Nov 16 2026 13:27:46.000");
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_first_pass_keeps_start_time, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pps_peer_is_free_of_alarm, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_first_alarm_pass_records_time, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_alarm_for_one_pass, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_line_176_low_is_alarm, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_no_reference_does_not_read_176, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_loop_bit_low_for_one_pass, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_loop_no_peer_clears_once_more, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_new_episode_clears_again, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_reference_changes_between_queries, setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_ntptime_failing, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_ntptime_short_or_garbage, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_ntpsec_format_taken_by_position, setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_register_read_fails, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_ntpq_cannot_start, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_indicator_commands_cannot_start, setup,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
