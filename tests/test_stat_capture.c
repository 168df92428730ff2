/* SPI capture transfer and stat file (Part 4.1): Stat_capture against the
 * virtual SPI device, and pabort in a child process. */
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/shared.h"
#include "platform/platform.h"
#include "statistics/Statistic.h"
#include "test_support.h"

#define REQ_CMD "./spiWrite -m 0 -l 4 -d 2 24 0 0"
#define RESP_CMD "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define REG48_CMD "./spiWrite -m 0 -l 3 -d 1 48 0"
#define STAT_FILE "/ftpdir/stat.txt"

enum { FRAME = 1410, STAT_LINES = 134 };

static const char LONG_ZERO[] = "00000000\t0000000000000000\n";
static const char SHORT_ZERO[] = "0000000000000000\n";

/* Line `no` (1-based) of text into out (without its newline); 0 when missing. */
static int line_of(const char *text, int no, char *out, size_t size)
{
    const char *p = text;
    for (int i = 1; i < no; i++) {
        p = strchr(p, '\n');
        if (p == NULL)
            return 0;
        p++;
    }
    const char *end = strchr(p, '\n');
    if (end == NULL)
        return 0;
    size_t len = (size_t)(end - p);
    if (len >= size)
        len = size - 1;
    memcpy(out, p, len);
    out[len] = '\0';
    return 1;
}

static int count_lines(const char *text)
{
    int lines = 0;
    for (const char *p = text; *p; p++)
        lines += *p == '\n';
    return lines;
}

/* The stat file of Part 4.1 for a receive frame and two counter lines,
 * composed from the table of "Stat file". */
static char *expected_stat(const uint8_t *rx, int resp_low, int req_low)
{
    size_t size = 8192;
    char *s = malloc(size);
    size_t o = 0;
    for (int k = 0; k < 64; k++) {
        const uint8_t *r = rx + 2 + 13 * k;
        if (k == 0)
            o += (size_t)snprintf(s + o, size - o, " time2*\t     t1\n");
        if (k == 32)
            o += (size_t)snprintf(s + o, size - o, " time3*\t     t1\n");
        o += (size_t)snprintf(s + o, size - o,
                              "%.2x%.2x%.2x%.2x\t%.2x%.2x%.2x%.2x%.2x%.2x%.2x%.2x\n", r[11], r[10],
                              r[9], r[8], r[7], r[6], r[5], r[4], r[3], r[2], r[1], r[0]);
    }
    for (int k = 0; k < 64; k++) {
        const uint8_t *r = rx + 834 + 9 * k;
        if (k == 0)
            o += (size_t)snprintf(s + o, size - o, "time2\n");
        if (k == 32)
            o += (size_t)snprintf(s + o, size - o, "time3\n");
        o += (size_t)snprintf(s + o, size - o, "%.2x%.2x%.2x%.2x%.2x%.2x%.2x%.2x\n", r[7], r[6],
                              r[5], r[4], r[3], r[2], r[1], r[0]);
    }
    snprintf(s + o, size - o, "%d\n%d\n", resp_low, req_low);
    return s;
}

/* Two calls from scount 0: the second performs the exchange. */
static void capture_once(void)
{
    scount = 0;
    Stat_capture();
    Stat_capture();
}

static void test_phasing_with_flag_on(void **state)
{
    (void)state;
    /* E4.1-1: with the flag on from start-up, every second cycle exchanges. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    vplat_set_now_us((int64_t)utc_time(2026, 11, 16, 13, 27, 46) * 1000000);
    static const int exchanged[] = {0, 1, 0, 1, 0};
    static const int scount_after[] = {1, 0, 1, 0, 1};
    int exchanges = 0;
    for (int c = 0; c < 5; c++) {
        vplat_cmd_clear();
        Stat_read();
        exchanges += exchanged[c];
        assert_int_equal(vplat_spi_exchanges(), exchanges);
        assert_int_equal(scount, scount_after[c]);
        /* Steps 1 and 2 on every call. */
        assert_int_equal(vplat_cmd_find(REG48_CMD, 0), 0);
        assert_int_equal(vplat_cmd_find("./spiWrite -m 1 -l 3 -d 1 1 4 0", 0), 1);
        assert_int_equal(vplat_cmd_occurrences("rm /ftpdir/lock"), (size_t)exchanged[c]);
        assert_int_equal(vplat_exists(STAT_FILE), exchanges > 0);
        vplat_set_now_us(vplat_now_us() + 1000000);
    }
}

static void test_stat_file_rewritten_on_next_exchange(void **state)
{
    (void)state;
    /* E4.1-1: the third cycle leaves the file alone, the fourth rewrites it. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    uint8_t rx[FRAME];
    memset(rx, 0x11, sizeof rx);
    vplat_spi_set_reply(rx, sizeof rx);
    Stat_read();
    Stat_read();
    char *first = vplat_read_file(STAT_FILE);
    assert_non_null(first);
    assert_non_null(strstr(first, "11111111\t1111111111111111\n"));
    memset(rx, 0x22, sizeof rx);
    vplat_spi_set_reply(rx, sizeof rx);
    Stat_read();
    assert_file(STAT_FILE, first);
    Stat_read();
    char *second = vplat_read_file(STAT_FILE);
    assert_non_null(strstr(second, "22222222\t2222222222222222\n"));
    assert_null(strstr(second, "1111"));
    free(first);
    free(second);
}

static void test_flag_off_keeps_phase(void **state)
{
    (void)state;
    /* Part 4.1 "State and lifecycle": cycles with the flag off do not touch
     * scount; the next cycle with the flag on performs the exchange. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    Stat_read();
    assert_int_equal(scount, 1);
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "0\n");
    Stat_read();
    Stat_read();
    assert_int_equal(scount, 1);
    assert_int_equal(vplat_spi_exchanges(), 0);
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    Stat_read();
    assert_int_equal(vplat_spi_exchanges(), 1);
    assert_int_equal(scount, 0);
}

static void test_all_zero_reply(void **state)
{
    (void)state;
    /* E4.1-2: all-zero reply: long lines of 8 zeros, a tab and 16 zeros; short lines of 16
     * zeros. */
    uint8_t rx[FRAME] = {0};
    vplat_spi_set_reply(rx, sizeof rx);
    vplat_reg_set(26, 0);
    vplat_reg_set(24, 0);
    capture_once();
    char want[8192];
    size_t o = 0;
    o += (size_t)snprintf(want + o, sizeof want - o, " time2*\t     t1\n");
    for (int i = 0; i < 32; i++)
        o += (size_t)snprintf(want + o, sizeof want - o, "%s", LONG_ZERO);
    o += (size_t)snprintf(want + o, sizeof want - o, " time3*\t     t1\n");
    for (int i = 0; i < 32; i++)
        o += (size_t)snprintf(want + o, sizeof want - o, "%s", LONG_ZERO);
    o += (size_t)snprintf(want + o, sizeof want - o, "time2\n");
    for (int i = 0; i < 32; i++)
        o += (size_t)snprintf(want + o, sizeof want - o, "%s", SHORT_ZERO);
    o += (size_t)snprintf(want + o, sizeof want - o, "time3\n");
    for (int i = 0; i < 32; i++)
        o += (size_t)snprintf(want + o, sizeof want - o, "%s", SHORT_ZERO);
    snprintf(want + o, sizeof want - o, "0\n0\n");
    assert_file(STAT_FILE, want);
}

static void test_unused_bytes_never_printed(void **state)
{
    (void)state;
    /* E4.1-3: byte 12 of a long record and byte 8 of a short record never appear;
     * bytes 0 and 1 of the frame are ignored. */
    uint8_t rx[FRAME] = {0};
    rx[0] = 0xFF;
    rx[1] = 0xFF;
    for (int k = 0; k < 64; k++)
        rx[2 + 13 * k + 12] = 0xFF;
    for (int k = 0; k < 64; k++)
        rx[834 + 9 * k + 8] = 0xFF;
    vplat_spi_set_reply(rx, sizeof rx);
    vplat_reg_set(26, 0);
    vplat_reg_set(24, 0);
    capture_once();
    char *got = vplat_read_file(STAT_FILE);
    assert_non_null(got);
    assert_null(strchr(got, 'f'));
    uint8_t zeros[FRAME] = {0};
    char *want = expected_stat(zeros, 0, 0);
    assert_string_equal(got, want);
    free(want);
    free(got);
}

static void test_four_tables_of_32_lines(void **state)
{
    (void)state;
    /* E4.1-4: each table has exactly 32 lines under its header; 134 lines in all. */
    uint8_t rx[FRAME];
    for (int i = 0; i < FRAME; i++)
        rx[i] = (uint8_t)(i * 37 + 1);
    vplat_spi_set_reply(rx, sizeof rx);
    capture_once();
    char *got = vplat_read_file(STAT_FILE);
    assert_non_null(got);
    assert_int_equal(count_lines(got), STAT_LINES);
    char line[64];
    static const int header_line[] = {1, 34, 67, 100};
    static const char *const header[] = {" time2*\t     t1", " time3*\t     t1", "time2", "time3"};
    for (int t = 0; t < 4; t++) {
        assert_true(line_of(got, header_line[t], line, sizeof line));
        assert_string_equal(line, header[t]);
        for (int i = 1; i <= 32; i++) {
            assert_true(line_of(got, header_line[t] + i, line, sizeof line));
            assert_int_equal(strlen(line), t < 2 ? 25 : 16);
        }
    }
    free(got);
}

static void test_counter_lines_low_byte_only(void **state)
{
    (void)state;
    /* E4.1-5: lines 133 and 134 are the number at character 6 of the fifth line,
     * the low byte; Part 4.2 still takes the whole reading afterwards. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    scount = 1;
    vplat_reg_set(26, 0xABCD);
    vplat_reg_set(24, 0x01FF);
    Stat_read();
    char *got = vplat_read_file(STAT_FILE);
    assert_non_null(got);
    char line[64];
    assert_true(line_of(got, 133, line, sizeof line));
    assert_string_equal(line, "205");
    assert_true(line_of(got, 134, line, sizeof line));
    assert_string_equal(line, "255");
    free(got);
    assert_int_equal(Stat_Out.RespSec[46], 0xABCD);
    assert_int_equal(Stat_Out.ReqSec[46], 0x01FF);
}

static void test_counter_lines_taken_before_part_4_2(void **state)
{
    (void)state;
    /* Part 4.1 step 11: separate readings, taken before those of Part 4.2. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    scount = 1;
    vplat_on_command_once(RESP_CMD, spi_output("AA AA 11 00\n"));
    vplat_on_command_once(RESP_CMD, spi_output("AA AA 22 01\n"));
    vplat_on_command_once(REQ_CMD, spi_output("AA AA 7B 02\n"));
    vplat_on_command_once(REQ_CMD, spi_output("AA AA 00 00\n"));
    Stat_read();
    char *got = vplat_read_file(STAT_FILE);
    assert_non_null(got);
    char line[64];
    assert_true(line_of(got, 133, line, sizeof line));
    assert_string_equal(line, "17");
    assert_true(line_of(got, 134, line, sizeof line));
    assert_string_equal(line, "123");
    free(got);
    assert_int_equal(Stat_Out.RespSec[46], 0x122);
    assert_int_equal(Stat_Out.ReqSec[46], 0);
}

static void test_counter_line_failed_read(void **state)
{
    (void)state;
    /* Our choice (capture.c step 11): a counter read that fails is written as 0. */
    vplat_fail_command(RESP_CMD);
    vplat_on_command(REQ_CMD, spi_output("AA AA zz\n"));
    capture_once();
    char *got = vplat_read_file(STAT_FILE);
    assert_non_null(got);
    char line[64];
    assert_true(line_of(got, 133, line, sizeof line));
    assert_string_equal(line, "0");
    assert_true(line_of(got, 134, line, sizeof line));
    assert_string_equal(line, "0");
    free(got);
}

static void test_golden_stat_file(void **state)
{
    (void)state;
    /* The whole stat file from a known 1410-byte reply and known counters. */
    uint8_t rx[FRAME];
    for (int i = 0; i < FRAME; i++)
        rx[i] = (uint8_t)(i % 251);
    vplat_spi_set_reply(rx, sizeof rx);
    vplat_reg_set(26, 0x01F4); /* 500: low byte 244 */
    vplat_reg_set(24, 0x0207); /* 519: low byte 7 */
    capture_once();
    char *got = vplat_read_file(STAT_FILE);
    assert_non_null(got);
    char *want = expected_stat(rx, 244, 7);
    assert_string_equal(got, want);
    /* One fully literal line per table, the last record and the counters. */
    char line[64];
    assert_true(line_of(got, 2, line, sizeof line));
    assert_string_equal(line, "0d0c0b0a\t0908070605040302");
    assert_true(line_of(got, 35, line, sizeof line));
    assert_string_equal(line, "b2b1b0af\taeadacabaaa9a8a7");
    assert_true(line_of(got, 66, line, sizeof line));
    assert_string_equal(line, "4f4e4d4c\t4b4a494847464544");
    assert_true(line_of(got, 68, line, sizeof line));
    assert_string_equal(line, "5857565554535251");
    assert_true(line_of(got, 101, line, sizeof line));
    assert_string_equal(line, "7d7c7b7a79787776");
    assert_true(line_of(got, 132, line, sizeof line));
    assert_string_equal(line, "9998979695949392");
    assert_true(line_of(got, 133, line, sizeof line));
    assert_string_equal(line, "244");
    assert_true(line_of(got, 134, line, sizeof line));
    assert_string_equal(line, "7");
    assert_int_equal(strlen(got), 16 + 64 * 26 + 16 + 6 + 64 * 17 + 6 + 4 + 2);
    free(want);
    free(got);
    /* Lock removed after the file was closed. */
    assert_false(vplat_exists("/ftpdir/lock"));
}

static void test_transfer_descriptor(void **state)
{
    (void)state;
    /* Part 4.1 steps 5-8: the descriptor, the mode and the bits handed over. */
    capture_once();
    const struct vplat_spi_record *r = vplat_spi_last();
    assert_int_equal(vplat_spi_exchanges(), 1);
    assert_int_equal(r->len, 1410);
    assert_int_equal(r->speed_hz, 0);
    assert_int_equal(r->delay_usecs, 0);
    assert_int_equal(r->bits_per_word, 8);
    assert_int_equal(r->cs_change, 0);
    assert_int_equal(r->tx_nbits, 0);
    assert_int_equal(r->rx_nbits, 0);
    assert_int_equal(r->word_delay_usecs, 0);
    assert_int_equal(r->pad, 0);
    assert_int_equal(r->tx_head[0], 0x00);
    assert_int_equal(r->tx_head[1], 0x31);
    assert_true(r->tx_rest_zero);
    assert_int_equal(r->mode_written, 1);
    assert_int_equal(r->bits_written, 8);
    assert_int_equal(dataLen, 1410);
    assert_int_equal(bits, 8);
    assert_int_equal(smode, 1);
    assert_int_equal(scount, 0);
    /* Step 10: the device is closed again. */
    assert_int_equal(vplat_spi_open_count(), 0);
}

static void test_register_1_bit_2(void **state)
{
    (void)state;
    /* Part 4.1 steps 1-2: register 48's value with bit 2 set goes to register 1,
     * composed into the shared buffer. */
    vplat_reg_set(48, 0xA1);
    Stat_capture();
    size_t end = assert_commands(0, REG48_CMD, "./spiWrite -m 1 -l 3 -d 1 1 165 0", NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_string_equal(buffer, "./spiWrite -m 1 -l 3 -d 1 1 165 0");
    assert_int_equal(vplat_reg_get(1), 165);
    vplat_reg_set(48, 0x04);
    vplat_cmd_clear();
    Stat_capture();
    assert_commands(0, REG48_CMD, "./spiWrite -m 1 -l 3 -d 1 1 4 0", RESP_CMD, REQ_CMD,
                    "rm /ftpdir/lock", NULL);
}

static void test_register_48_read_fails(void **state)
{
    (void)state;
    /* Part 2.2 safe choice: a failed read of register 48 is not written to
     * register 1; the phase counter still advances. */
    vplat_fail_command(REG48_CMD);
    Stat_capture();
    size_t end = assert_commands(0, REG48_CMD, NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_int_equal(scount, 1);
    vplat_cmd_clear();
    Stat_capture();
    end = assert_commands(0, REG48_CMD, RESP_CMD, REQ_CMD, "rm /ftpdir/lock", NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_int_equal(vplat_spi_exchanges(), 1);
}

/* Part 4.1 "Left to the implementer": no exchange, lock removed, phase restarts. */
static void assert_skipped_exchange(void)
{
    size_t end = assert_commands(0, REG48_CMD, "./spiWrite -m 1 -l 3 -d 1 1 4 0", REG48_CMD,
                                 "./spiWrite -m 1 -l 3 -d 1 1 4 0", "rm /ftpdir/lock", NULL);
    assert_int_equal(vplat_cmd_count(), end);
    assert_int_equal(vplat_spi_exchanges(), 0);
    assert_int_equal(vplat_spi_open_count(), 0);
    assert_false(vplat_exists("/ftpdir/lock"));
    assert_int_equal(scount, 0);
}

static void test_frame_allocation_fails(void **state)
{
    (void)state;
    vplat_write_file(STAT_FILE, "old\n");
    scount = 0;
    Stat_capture();
    vplat_fail_alloc(1); /* the transmit frame */
    Stat_capture();
    assert_skipped_exchange();
    assert_file(STAT_FILE, "old\n");
}

static void test_second_frame_allocation_fails(void **state)
{
    (void)state;
    vplat_write_file(STAT_FILE, "old\n");
    Stat_capture();
    vplat_fail_alloc(2); /* the receive frame */
    Stat_capture();
    assert_skipped_exchange();
    assert_file(STAT_FILE, "old\n");
}

static void test_stat_file_is_a_directory(void **state)
{
    (void)state;
    /* The stat file cannot be opened (here: a directory of that name): the
     * lock was created, and is removed. */
    assert_int_equal(mkdir(vplat_path(STAT_FILE), 0755), 0);
    Stat_capture();
    Stat_capture();
    assert_skipped_exchange();
}

static void test_ftpdir_read_only(void **state)
{
    (void)state;
    /* /ftpdir read-only: neither the lock nor the stat file can be made. */
    vplat_chmod("/ftpdir", 0);
    int dropped = drop_dac_override() == 0;
    int probe = open(vplat_path("/ftpdir/probe"), O_WRONLY | O_CREAT, 0644);
    if (probe >= 0) {
        close(probe);
        unlink(vplat_path("/ftpdir/probe"));
        if (dropped)
            restore_caps();
        vplat_chmod("/ftpdir", 1);
        skip(); /* permission checks cannot be made to apply here */
    }
    Stat_capture();
    Stat_capture();
    if (dropped)
        restore_caps();
    vplat_chmod("/ftpdir", 1);
    assert_skipped_exchange();
    assert_false(vplat_exists(STAT_FILE));
}

/* ---- pabort (Part 4.1 Failure handling) ---- */

/* Runs two Stat_capture calls in a child with standard error in a file;
 * returns the child's wait status and leaves what it printed in out. */
static int capture_in_child(char *out, size_t size)
{
    char path[] = "/tmp/zarvent-pabort-XXXXXX";
    int fd = mkstemp(path);
    assert_true(fd >= 0);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    assert_true(pid >= 0);
    if (pid == 0) {
        signal(SIGABRT, SIG_DFL);
        dup2(fd, 2);
        scount = 0;
        Stat_capture();
        Stat_capture();
        _exit(0);
    }
    int status = 0;
    assert_int_equal(waitpid(pid, &status, 0), pid);
    lseek(fd, 0, SEEK_SET);
    ssize_t got = read(fd, out, size - 1);
    out[got > 0 ? got : 0] = '\0';
    close(fd);
    unlink(path);
    return status;
}

/* The daemon ends through pabort when op fails; keep tells whether the
 * previous stat file is still as it was. */
static void assert_pabort(enum vplat_spi_op op, const char *message, int err, int keep)
{
    vplat_write_file(STAT_FILE, "old\n");
    vplat_spi_fail(op);
    char out[512];
    int status = capture_in_child(out, sizeof out);
    assert_true(WIFSIGNALED(status));
    assert_int_equal(WTERMSIG(status), SIGABRT);
    char want[256];
    snprintf(want, sizeof want, "%s: %s\n", message, strerror(err));
    size_t len = strlen(want);
    /* Under qemu-arm the emulator adds its own line about the signal after
     * the daemon's text; nothing else may follow it. */
    if (strlen(out) > len && strncmp(out + len, "qemu: uncaught target signal 6", 30) == 0)
        out[len] = '\0';
    assert_string_equal(out, want);
    /* The lock stays: it was created before the device was opened. */
    assert_true(vplat_exists("/ftpdir/lock"));
    /* capture.c's choice: the stat file is opened after the device's set-up,
     * just before the exchange. */
    assert_file(STAT_FILE, keep ? "old\n" : "");
}

static void test_pabort_open(void **state)
{
    (void)state;
    assert_pabort(VSPI_OPEN, "can't open device", ENOENT, 1);
}

static void test_pabort_write_mode(void **state)
{
    (void)state;
    assert_pabort(VSPI_WR_MODE, "can't set spi mode", EIO, 1);
}

static void test_pabort_read_mode(void **state)
{
    (void)state;
    assert_pabort(VSPI_RD_MODE, "can't get spi mode", EIO, 1);
}

static void test_pabort_write_bits(void **state)
{
    (void)state;
    assert_pabort(VSPI_WR_BITS, "can't set bits per word", EIO, 1);
}

static void test_pabort_read_bits(void **state)
{
    (void)state;
    assert_pabort(VSPI_RD_BITS, "can't get bits per word", EIO, 1);
}

static void test_pabort_message(void **state)
{
    (void)state;
    assert_pabort(VSPI_MESSAGE, "can't send spi message", EIO, 0);
}

static void test_pabort_device_missing(void **state)
{
    (void)state;
    /* No device at all ends the daemon like a failing open. */
    vplat_spi_present(0);
    char out[512];
    int status = capture_in_child(out, sizeof out);
    assert_true(WIFSIGNALED(status));
    assert_int_equal(WTERMSIG(status), SIGABRT);
    char want[128];
    snprintf(want, sizeof want, "can't open device: %s\n", strerror(ENOENT));
    assert_memory_equal(out, want, strlen(want));
}

static void test_no_abort_on_first_call(void **state)
{
    (void)state;
    /* Without the exchange (first call) a faulty device is never touched. */
    vplat_spi_fail(VSPI_OPEN);
    Stat_capture();
    assert_int_equal(scount, 1);
    assert_false(vplat_exists("/ftpdir/lock"));
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_phasing_with_flag_on, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_stat_file_rewritten_on_next_exchange, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_flag_off_keeps_phase, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_all_zero_reply, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_unused_bytes_never_printed, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_four_tables_of_32_lines, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_lines_low_byte_only, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_lines_taken_before_part_4_2, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_counter_line_failed_read, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_golden_stat_file, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_transfer_descriptor, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_register_1_bit_2, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_register_48_read_fails, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_frame_allocation_fails, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_second_frame_allocation_fails, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_stat_file_is_a_directory, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_ftpdir_read_only, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pabort_open, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pabort_write_mode, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pabort_read_mode, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pabort_write_bits, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pabort_read_bits, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pabort_message, statistics_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_pabort_device_missing, statistics_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_no_abort_on_first_call, statistics_setup,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
