/* Factory-default button (Part 5.4). */
#include "supervision/ThreadLED.h"

#include <stddef.h>

#include "hardware/gpio_work.h"
#include "hardware/runner.h"
#include "platform/platform.h"

int NtpDefault(void)
{
    if (PinGetInput("88") != 0)
        return 0;
    run_command("echo 1 > /sys/class/gpio/gpio78/value", "w");
    static const char *const restore[] = {
        "ifconfig eth0 192.168.2.100 netmask 255.255.255.0",
        "cd /etc",
        "mv -f /etc/ntp.conf /etc/ntp.conf.bak",
        "cp /usr/bin/Zarvent/defcnfg /etc/ntp.conf",
        "mv -f /etc/resolv.conf /etc/resolv.conf.bak",
        "cp /usr/bin/Zarvent/resolv.conf /etc/resolv.conf",
        "cd /etc/network",
        "mv -f /etc/network/interfaces /etc/network/interfaces.bak",
        "cp /usr/bin/Zarvent/interfaces /etc/network/interfaces",
    };
    for (size_t i = 0; i < sizeof restore / sizeof restore[0]; i++)
        run_command(restore[i], "r");
    plat_sleep(1);
    run_command("echo 0 > /sys/class/gpio/gpio78/value", "w");
    return 0;
}
