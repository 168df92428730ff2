/* Scenario: antenna open and short, alarm input, relay events, the
 * factory-default button and the indicator test. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "scenario_support.h"

const char SCENARIO[] = "start 2026-11-16T13:27:00\n"
                        "duration 330\n"
                        "seed 3\n"
                        "rmc A\n"
                        "peer system\n"
                        "at 20 gpio 86 0\n" /* antenna open */
                        "at 30 snapshot open-page\n"
                        "at 40 gpio 86 1\n"
                        "at 60 gpio 87 0\n" /* antenna short */
                        "at 61 snapshot short-page\n"
                        "at 80 gpio 87 1\n"
                        "at 100 gpio 176 0\n" /* alarm input */
                        "at 115 snapshot alarm-page\n"
                        "at 130 gpio 176 1\n"
                        "at 145 snapshot clear-page\n"
                        "at 150 event 1\n" /* FPGA event flags */
                        "at 150 event 2\n"
                        "at 200 gpio 88 0\n" /* factory-default button */
                        "at 203 gpio 88 1\n"
                        "at 250 gpio 79 0\n" /* indicator test */
                        "at 262 gpio 79 1\n";

static void test_antenna(void **state)
{
    (void)state;
    char *open = run_log(&r, "open-page");
    assert_non_null(strstr(open, "\n<b>Antenna:</b> Off\n"));
    free(open);
    char *levels = run_log(&r, "levels.log");
    /* The short switches line 85 off and, more than 4 s later, on again. */
    const char *off = strstr(levels, " 85 0\n");
    assert_non_null(off);
    long t_off = strtol(off - 17, NULL, 10);
    const char *on = strstr(off, " 85 1\n");
    assert_non_null(on);
    long t_on = strtol(on - 17, NULL, 10);
    assert_true(t_on - t_off >= 5);
    free(levels);
}

static void test_alarm(void **state)
{
    (void)state;
    char *alarm = run_log(&r, "alarm-page");
    assert_non_null(
        strstr(alarm, "<b>Alarm at:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:28:4"));
    free(alarm);
    char *clear = run_log(&r, "clear-page");
    assert_non_null(strstr(
        clear, "<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:29:1"));
    free(clear);
}

static void test_relay_events(void **state)
{
    (void)state;
    /* Both events acknowledged once each, bit 1 before bit 2 (Part 3.3). */
    assert_int_equal(run_summary(&r, "event_acks"), 1);
    char *regs = run_log(&r, "registers.log");
    const char *set1 = NULL, *set2 = NULL;
    for (const char *p = strstr(regs, "-d 1 2 "); p; p = strstr(p + 1, "-d 1 2 ")) {
        long v = strtol(p + 7, NULL, 10);
        if ((v & 2) && set1 == NULL)
            set1 = p;
        if ((v & 4) && set2 == NULL)
            set2 = p;
    }
    assert_non_null(set1);
    assert_non_null(set2);
    assert_true(set1 < set2);
    const char *line = set1;
    while (line > regs && line[-1] != '\n')
        line--;
    long t1 = strtol(line, NULL, 10);
    assert_in_range(t1 - 1794835620, 155, 156);
    free(regs);
}

static void test_factory_default(void **state)
{
    (void)state;
    char *cmds = run_log(&r, "commands.log");
    assert_true(count_lines(cmds, "ifconfig eth0 192.168.2.100 netmask 255.255.255.0") >= 1);
    assert_true(count_lines(cmds, "cp /usr/bin/Zarvent/defcnfg /etc/ntp.conf") >= 1);
    free(cmds);
    char *conf = run_board_file(&r, "/etc/ntp.conf");
    assert_non_null(conf);
    assert_string_equal(conf, "server 127.127.20.0 mode 1 prefer\n");
    free(conf);
    char *bak = run_board_file(&r, "/etc/resolv.conf.bak");
    assert_non_null(bak);
    free(bak);
}

static void test_indicator_test(void **state)
{
    (void)state;
    /* While line 79 reads 0, lines 70 to 77 are driven high over and over. */
    char *levels = run_log(&r, "levels.log");
    int highs = 0;
    for (int line = 70; line <= 77; line++) {
        char needle[32];
        snprintf(needle, sizeof needle, " %d 1 shell", line);
        highs += count_lines(levels, needle) > 10;
    }
    assert_int_equal(highs, 8);
    free(levels);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_antenna),        cmocka_unit_test(test_alarm),
        cmocka_unit_test(test_relay_events),   cmocka_unit_test(test_factory_default),
        cmocka_unit_test(test_indicator_test),
    };
    return cmocka_run_group_tests(tests, scenario_group_setup, scenario_group_teardown);
}
