/* Factory-default button (Part 5.4): NtpDefault. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "supervision/ThreadLED.h"
#include "test_support.h"

#define SEC 1000000LL

static int setup(void **state)
{
    board_setup(state);
    /* Lines 78 (feedback) and 88 (button) as Part 5.1's set-up leaves them. */
    vplat_gpio_provide(78, 1, 0);
    vplat_gpio_provide(88, 0, 1);
    /* The configuration in use, and the factory copies installed with the daemon. */
    vplat_write_file("/etc/ntp.conf", "server 10.0.0.1 iburst\n");
    vplat_write_file("/etc/resolv.conf", "nameserver 10.0.0.53\n");
    vplat_write_file("/etc/network/interfaces", "iface eth0 inet static\naddress 10.0.0.7\n");
    vplat_write_file("/usr/bin/Zarvent/defcnfg", "server 127.127.20.0 mode 17\n");
    vplat_write_file("/usr/bin/Zarvent/resolv.conf", "nameserver 192.168.2.1\n");
    vplat_write_file("/usr/bin/Zarvent/interfaces",
                     "iface eth0 inet static\naddress 192.168.2.100\n");
    return 0;
}

/* The whole restore sequence of Part 5.4 steps 2 to 5, from command index from. */
static size_t assert_restore(size_t from)
{
    size_t end = assert_commands(
        from, "echo 1 > /sys/class/gpio/gpio78/value",
        "ifconfig eth0 192.168.2.100 netmask 255.255.255.0", "cd /etc",
        "mv -f /etc/ntp.conf /etc/ntp.conf.bak", "cp /usr/bin/Zarvent/defcnfg /etc/ntp.conf",
        "mv -f /etc/resolv.conf /etc/resolv.conf.bak",
        "cp /usr/bin/Zarvent/resolv.conf /etc/resolv.conf", "cd /etc/network",
        "mv -f /etc/network/interfaces /etc/network/interfaces.bak",
        "cp /usr/bin/Zarvent/interfaces /etc/network/interfaces",
        "echo 0 > /sys/class/gpio/gpio78/value", NULL);
    assert_string_equal(vplat_cmd_mode(from), "w");
    for (size_t i = from + 1; i < end - 1; i++)
        assert_string_equal(vplat_cmd_mode(i), "r");
    assert_string_equal(vplat_cmd_mode(end - 1), "w");
    return end;
}

/* Entries of the level log for one line, in order. */
static size_t levels_of(int line, const struct vplat_level **out, size_t max)
{
    size_t k = 0;
    for (size_t i = 0; i < vplat_level_count() && k < max; i++)
        if (vplat_level_at(i)->line == line)
            out[k++] = vplat_level_at(i);
    return k;
}

static void test_button_released(void **state)
{
    (void)state;
    /* E5.4-1: line 88 at 1: no command runs, line 78 is not touched. */
    assert_int_equal(NtpDefault(), 0);
    assert_int_equal(vplat_cmd_count(), 0);
    assert_int_equal(vplat_level_count(), 0);
    assert_int_equal(vplat_gpio_level(78), 0);
    assert_int_equal(vplat_gpio_reads(88), 1);
    assert_string_equal(vplat_eth0_address(), "");
    assert_file("/etc/ntp.conf", "server 10.0.0.1 iburst\n");
    assert_false(vplat_exists("/etc/ntp.conf.bak"));
}

static void test_restore_sequence(void **state)
{
    (void)state;
    /* Part 5.4 steps 1 to 5: one read of line 88 at 0 starts the restore;
     * each replaced file is kept under its name with ".bak". */
    vplat_gpio_set_input(88, 0);
    assert_int_equal(NtpDefault(), 0);
    assert_int_equal(assert_restore(0), vplat_cmd_count());
    assert_file("/etc/ntp.conf", "server 127.127.20.0 mode 17\n");
    assert_file("/etc/ntp.conf.bak", "server 10.0.0.1 iburst\n");
    assert_file("/etc/resolv.conf", "nameserver 192.168.2.1\n");
    assert_file("/etc/resolv.conf.bak", "nameserver 10.0.0.53\n");
    assert_file("/etc/network/interfaces", "iface eth0 inet static\naddress 192.168.2.100\n");
    assert_file("/etc/network/interfaces.bak", "iface eth0 inet static\naddress 10.0.0.7\n");
    /* The factory files are only read. */
    assert_file("/usr/bin/Zarvent/defcnfg", "server 127.127.20.0 mode 17\n");
    assert_file("/usr/bin/Zarvent/resolv.conf", "nameserver 192.168.2.1\n");
    assert_file("/usr/bin/Zarvent/interfaces", "iface eth0 inet static\naddress 192.168.2.100\n");
}

static void test_line_78_high_for_one_second(void **state)
{
    (void)state;
    /* E5.4-3: line 78 is high for at least one second per restore and low
     * afterwards. */
    int64_t t0 = vplat_now_us();
    vplat_gpio_set_input(88, 0);
    NtpDefault();
    const struct vplat_level *l[8];
    assert_int_equal(levels_of(78, l, 8), 2);
    assert_int_equal(l[0]->level, 1);
    assert_int_equal(l[0]->by_shell, 1);
    assert_int_equal(l[1]->level, 0);
    assert_int_equal(l[1]->by_shell, 1);
    assert_true(l[1]->t_us - l[0]->t_us >= 1 * SEC);
    assert_int_equal(l[0]->t_us, t0);
    assert_int_equal(vplat_gpio_level(78), 0);
    /* The sleep lies between the last copy and the switch-off. */
    long cp = vplat_cmd_find("cp /usr/bin/Zarvent/interfaces /etc/network/interfaces", 0);
    long off = vplat_cmd_find("echo 0 > /sys/class/gpio/gpio78/value", 0);
    assert_true(cp >= 0 && off == cp + 1);
    assert_int_equal(vplat_cmd_time_us((size_t)off) - vplat_cmd_time_us((size_t)cp), 1 * SEC);
}

static void test_eth0_factory_address(void **state)
{
    (void)state;
    /* E5.4-4: after a restore, eth0 answers at 192.168.2.100/24; nothing
     * restarts ntpd or the network. */
    vplat_gpio_set_input(88, 0);
    NtpDefault();
    assert_string_equal(vplat_eth0_address(), "192.168.2.100/24");
    for (size_t i = 0; i < vplat_cmd_count(); i++) {
        assert_null(strstr(vplat_cmd(i), "ntpd"));
        assert_null(strstr(vplat_cmd(i), "reboot"));
        assert_null(strstr(vplat_cmd(i), "restart"));
    }
}

static void test_button_held_two_passes(void **state)
{
    (void)state;
    /* E5.4-2: held across two passes the sequence runs twice; the second run
     * moves the first run's factory copies to the .bak names, so the
     * configuration in use before the first press is no longer kept. */
    vplat_gpio_set_input(88, 0);
    NtpDefault();
    NtpDefault();
    size_t end = assert_restore(0);
    assert_int_equal(assert_restore(end), vplat_cmd_count());
    assert_file("/etc/ntp.conf", "server 127.127.20.0 mode 17\n");
    assert_file("/etc/ntp.conf.bak", "server 127.127.20.0 mode 17\n");
    assert_file("/etc/resolv.conf.bak", "nameserver 192.168.2.1\n");
    assert_file("/etc/network/interfaces.bak", "iface eth0 inet static\naddress 192.168.2.100\n");
    const struct vplat_level *l[8];
    assert_int_equal(levels_of(78, l, 8), 4);
    assert_int_equal(l[0]->level, 1);
    assert_int_equal(l[1]->level, 0);
    assert_int_equal(l[2]->level, 1);
    assert_int_equal(l[3]->level, 0);
}

static void test_factory_file_missing(void **state)
{
    (void)state;
    /* Part 5.4 failure handling: the move runs before the copy, so with a
     * factory file missing the system file has gone to .bak and nothing is
     * left under the system name. */
    char *p = strdup(vplat_path("/usr/bin/Zarvent/resolv.conf"));
    assert_int_equal(remove(p), 0);
    free(p);
    vplat_gpio_set_input(88, 0);
    NtpDefault();
    assert_int_equal(assert_restore(0), vplat_cmd_count());
    assert_false(vplat_exists("/etc/resolv.conf"));
    assert_file("/etc/resolv.conf.bak", "nameserver 10.0.0.53\n");
    assert_file("/etc/ntp.conf", "server 127.127.20.0 mode 17\n");
}

static void test_system_file_missing(void **state)
{
    (void)state;
    /* Part 5.4 failure handling: a missing system file makes its mv fail;
     * the factory copy is still put in place. */
    char *p = strdup(vplat_path("/etc/ntp.conf"));
    assert_int_equal(remove(p), 0);
    free(p);
    vplat_gpio_set_input(88, 0);
    NtpDefault();
    assert_int_equal(assert_restore(0), vplat_cmd_count());
    assert_false(vplat_exists("/etc/ntp.conf.bak"));
    assert_file("/etc/ntp.conf", "server 127.127.20.0 mode 17\n");
}

static void test_commands_that_cannot_start(void **state)
{
    (void)state;
    /* Part 5.4: exit statuses are ignored; a command that cannot be started
     * is passed over and the sequence still ends with line 78 low. */
    vplat_fail_command("ifconfig eth0 192.168.2.100 netmask 255.255.255.0");
    vplat_fail_command("mv -f /etc/ntp.conf /etc/ntp.conf.bak");
    vplat_gpio_set_input(88, 0);
    assert_int_equal(NtpDefault(), 0);
    assert_int_equal(assert_restore(0), vplat_cmd_count());
    assert_string_equal(vplat_eth0_address(), "");
    assert_false(vplat_exists("/etc/ntp.conf.bak"));
    assert_file("/etc/ntp.conf", "server 127.127.20.0 mode 17\n");
    assert_int_equal(vplat_gpio_level(78), 0);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_button_released, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_restore_sequence, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_line_78_high_for_one_second, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_eth0_factory_address, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_button_held_two_passes, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_factory_file_missing, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_system_file_missing, setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_commands_that_cannot_start, setup, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
