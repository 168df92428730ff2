/* Helpers shared by the unit tests. */
#include "test_support.h"

#include "daemon/shared.h"
#include "platform/platform.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/syscall.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int board_setup_at(time_t start)
{
    vplat_reset(start);
    vplat_board_tree();
    return 0;
}

int board_setup(void **state)
{
    (void)state;
    return board_setup_at(T_EXAMPLE);
}

int board_teardown(void **state)
{
    (void)state;
    vplat_cleanup();
    return 0;
}

void statistics_globals_reset(void)
{
    memset(&Stat_Out, 0, sizeof Stat_Out);
    scount = 0;
    smode = 1;
    bits = 0;
    dataLen = 0;
    memset(buffer, 0, sizeof buffer);
    z_prev = 0.0f;
    dz_prev = 0.0f;
    Jitter = 0;
    Sync_En = 0;
    atomic_store(&Alarm, 0);
    char zeros[CO_SIZE] = {0};
    command_out_put(0, zeros, CO_SIZE);
    timeinfo_refresh(plat_time());
}

int statistics_setup(void **state)
{
    board_setup(state);
    statistics_globals_reset();
    return 0;
}

void supervision_lines(void)
{
    for (int line = 70; line <= 78; line++)
        vplat_gpio_provide(line, 1, 0);
    vplat_gpio_provide(79, 0, 1);
    vplat_gpio_provide(86, 0, 1);
    vplat_gpio_provide(87, 0, 1);
    vplat_gpio_provide(88, 0, 1);
}

const char *spi_output(const char *fifth)
{
    static char buf[512];
    snprintf(buf, sizeof buf,
             "spiWrite: mode 0 length 3 data 1\nregister 0\ntx: 0 0\ntransfer complete\n%s", fifth);
    return buf;
}

size_t assert_commands(size_t from, ...)
{
    va_list ap;
    va_start(ap, from);
    size_t i = from;
    for (const char *want = va_arg(ap, const char *); want; want = va_arg(ap, const char *)) {
        if (i >= vplat_cmd_count())
            fail_msg("command %zu missing: expected \"%s\"", i, want);
        assert_string_equal(vplat_cmd(i), want);
        i++;
    }
    va_end(ap);
    return i;
}

void assert_file(const char *board_path, const char *expected)
{
    char *got = vplat_read_file(board_path);
    if (got == NULL)
        fail_msg("file %s is missing", board_path);
    assert_string_equal(got, expected);
    free(got);
}

char *capture_stderr(void (*fn)(void *), void *arg)
{
    char path[] = "/tmp/zarvent-stderr-XXXXXX";
    int fd = mkstemp(path);
    assert_true(fd >= 0);
    fflush(stderr);
    int saved = dup(2);
    dup2(fd, 2);
    fn(arg);
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    lseek(fd, 0, SEEK_SET);
    char *out = calloc(1, 4096);
    ssize_t got = read(fd, out, 4095);
    (void)got;
    close(fd);
    unlink(path);
    return out;
}

time_t utc_time(int year, int month, int day, int hour, int minute, int second)
{
    struct tm t = {0};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return timegm(&t);
}

static struct __user_cap_data_struct saved_caps[2];

int drop_dac_override(void)
{
    struct __user_cap_header_struct hdr = {_LINUX_CAPABILITY_VERSION_3, 0};
    if (syscall(SYS_capget, &hdr, saved_caps) != 0)
        return -1;
    struct __user_cap_data_struct caps[2] = {saved_caps[0], saved_caps[1]};
    caps[0].effective &= ~((1u << CAP_DAC_OVERRIDE) | (1u << CAP_DAC_READ_SEARCH));
    return (int)syscall(SYS_capset, &hdr, caps);
}

void restore_caps(void)
{
    struct __user_cap_header_struct hdr = {_LINUX_CAPABILITY_VERSION_3, 0};
    (void)syscall(SYS_capset, &hdr, saved_caps);
}
