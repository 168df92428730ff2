/* SPI capture transfer and stat file (Part 4.1). */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "daemon/shared.h"
#include "statistics/Statistic.h"
#include "test_support.h"

#define R48_READ "./spiWrite -m 0 -l 3 -d 1 48 0"
#define RESP_READ "./spiWrite -m 0 -l 4 -d 2 26 0 0"
#define REQ_READ "./spiWrite -m 0 -l 4 -d 2 24 0 0"
#define RM_LOCK "rm /ftpdir/lock"

enum { FRAME = 1410 };

/* Every global the capture step reads or writes, as at start-up (Part 1.2). */
static int capture_setup(void **state)
{
    board_setup(state);
    scount = 0;
    smode = 1;
    bits = 0;
    dataLen = 0;
    memset(buffer, 0, sizeof buffer);
    memset(&Stat_Out, 0, sizeof Stat_Out);
    return 0;
}

/* The golden reply: byte i of the frame is (i * 37 + 11) mod 256. */
static void pattern_reply(uint8_t *rx)
{
    for (int i = 0; i < FRAME; i++)
        rx[i] = (uint8_t)(i * 37 + 11);
}

/* The stat file of the golden reply, with register 26 at 0x1234 and
 * register 24 at 0xABCD (low bytes 52 and 205). */
static const char GOLDEN_STAT[] = " time2*\t     t1\n"
                                  "ecc7a27d\t58330ee9c49f7a55\n"
                                  "cda8835e\t3914efcaa5805b36\n"
                                  "ae89643f\t1af5d0ab86613c17\n"
                                  "8f6a4520\tfbd6b18c67421df8\n"
                                  "704b2601\tdcb7926d4823fed9\n"
                                  "512c07e2\tbd98734e2904dfba\n"
                                  "320de8c3\t9e79542f0ae5c09b\n"
                                  "13eec9a4\t7f5a3510ebc6a17c\n"
                                  "f4cfaa85\t603b16f1cca7825d\n"
                                  "d5b08b66\t411cf7d2ad88633e\n"
                                  "b6916c47\t22fdd8b38e69441f\n"
                                  "97724d28\t03deb9946f4a2500\n"
                                  "78532e09\te4bf9a75502b06e1\n"
                                  "59340fea\tc5a07b56310ce7c2\n"
                                  "3a15f0cb\ta6815c3712edc8a3\n"
                                  "1bf6d1ac\t87623d18f3cea984\n"
                                  "fcd7b28d\t68431ef9d4af8a65\n"
                                  "ddb8936e\t4924ffdab5906b46\n"
                                  "be99744f\t2a05e0bb96714c27\n"
                                  "9f7a5530\t0be6c19c77522d08\n"
                                  "805b3611\tecc7a27d58330ee9\n"
                                  "613c17f2\tcda8835e3914efca\n"
                                  "421df8d3\tae89643f1af5d0ab\n"
                                  "23fed9b4\t8f6a4520fbd6b18c\n"
                                  "04dfba95\t704b2601dcb7926d\n"
                                  "e5c09b76\t512c07e2bd98734e\n"
                                  "c6a17c57\t320de8c39e79542f\n"
                                  "a7825d38\t13eec9a47f5a3510\n"
                                  "88633e19\tf4cfaa85603b16f1\n"
                                  "69441ffa\td5b08b66411cf7d2\n"
                                  "4a2500db\tb6916c4722fdd8b3\n"
                                  "2b06e1bc\t97724d2803deb994\n"
                                  " time3*\t     t1\n"
                                  "0ce7c29d\t78532e09e4bf9a75\n"
                                  "edc8a37e\t59340feac5a07b56\n"
                                  "cea9845f\t3a15f0cba6815c37\n"
                                  "af8a6540\t1bf6d1ac87623d18\n"
                                  "906b4621\tfcd7b28d68431ef9\n"
                                  "714c2702\tddb8936e4924ffda\n"
                                  "522d08e3\tbe99744f2a05e0bb\n"
                                  "330ee9c4\t9f7a55300be6c19c\n"
                                  "14efcaa5\t805b3611ecc7a27d\n"
                                  "f5d0ab86\t613c17f2cda8835e\n"
                                  "d6b18c67\t421df8d3ae89643f\n"
                                  "b7926d48\t23fed9b48f6a4520\n"
                                  "98734e29\t04dfba95704b2601\n"
                                  "79542f0a\te5c09b76512c07e2\n"
                                  "5a3510eb\tc6a17c57320de8c3\n"
                                  "3b16f1cc\ta7825d3813eec9a4\n"
                                  "1cf7d2ad\t88633e19f4cfaa85\n"
                                  "fdd8b38e\t69441ffad5b08b66\n"
                                  "deb9946f\t4a2500dbb6916c47\n"
                                  "bf9a7550\t2b06e1bc97724d28\n"
                                  "a07b5631\t0ce7c29d78532e09\n"
                                  "815c3712\tedc8a37e59340fea\n"
                                  "623d18f3\tcea9845f3a15f0cb\n"
                                  "431ef9d4\taf8a65401bf6d1ac\n"
                                  "24ffdab5\t906b4621fcd7b28d\n"
                                  "05e0bb96\t714c2702ddb8936e\n"
                                  "e6c19c77\t522d08e3be99744f\n"
                                  "c7a27d58\t330ee9c49f7a5530\n"
                                  "a8835e39\t14efcaa5805b3611\n"
                                  "89643f1a\tf5d0ab86613c17f2\n"
                                  "6a4520fb\td6b18c67421df8d3\n"
                                  "4b2601dc\tb7926d4823fed9b4\n"
                                  "time2\n"
                                  "98734e2904dfba95\n"
                                  "e5c09b76512c07e2\n"
                                  "320de8c39e79542f\n"
                                  "7f5a3510ebc6a17c\n"
                                  "cca7825d3813eec9\n"
                                  "19f4cfaa85603b16\n"
                                  "66411cf7d2ad8863\n"
                                  "b38e69441ffad5b0\n"
                                  "00dbb6916c4722fd\n"
                                  "4d2803deb9946f4a\n"
                                  "9a75502b06e1bc97\n"
                                  "e7c29d78532e09e4\n"
                                  "340feac5a07b5631\n"
                                  "815c3712edc8a37e\n"
                                  "cea9845f3a15f0cb\n"
                                  "1bf6d1ac87623d18\n"
                                  "68431ef9d4af8a65\n"
                                  "b5906b4621fcd7b2\n"
                                  "02ddb8936e4924ff\n"
                                  "4f2a05e0bb96714c\n"
                                  "9c77522d08e3be99\n"
                                  "e9c49f7a55300be6\n"
                                  "3611ecc7a27d5833\n"
                                  "835e3914efcaa580\n"
                                  "d0ab86613c17f2cd\n"
                                  "1df8d3ae89643f1a\n"
                                  "6a4520fbd6b18c67\n"
                                  "b7926d4823fed9b4\n"
                                  "04dfba95704b2601\n"
                                  "512c07e2bd98734e\n"
                                  "9e79542f0ae5c09b\n"
                                  "ebc6a17c57320de8\n"
                                  "time3\n"
                                  "3813eec9a47f5a35\n"
                                  "85603b16f1cca782\n"
                                  "d2ad88633e19f4cf\n"
                                  "1ffad5b08b66411c\n"
                                  "6c4722fdd8b38e69\n"
                                  "b9946f4a2500dbb6\n"
                                  "06e1bc97724d2803\n"
                                  "532e09e4bf9a7550\n"
                                  "a07b56310ce7c29d\n"
                                  "edc8a37e59340fea\n"
                                  "3a15f0cba6815c37\n"
                                  "87623d18f3cea984\n"
                                  "d4af8a65401bf6d1\n"
                                  "21fcd7b28d68431e\n"
                                  "6e4924ffdab5906b\n"
                                  "bb96714c2702ddb8\n"
                                  "08e3be99744f2a05\n"
                                  "55300be6c19c7752\n"
                                  "a27d58330ee9c49f\n"
                                  "efcaa5805b3611ec\n"
                                  "3c17f2cda8835e39\n"
                                  "89643f1af5d0ab86\n"
                                  "d6b18c67421df8d3\n"
                                  "23fed9b48f6a4520\n"
                                  "704b2601dcb7926d\n"
                                  "bd98734e2904dfba\n"
                                  "0ae5c09b76512c07\n"
                                  "57320de8c39e7954\n"
                                  "a47f5a3510ebc6a1\n"
                                  "f1cca7825d3813ee\n"
                                  "3e19f4cfaa85603b\n"
                                  "8b66411cf7d2ad88\n"
                                  "52\n"
                                  "205\n";

/* Text of a stat file whose records are all zero, with the two counter lines. */
static char *zero_stat_text(int responses, int requests)
{
    char *text = malloc(8192);
    size_t len = 0;
    len += (size_t)sprintf(text + len, " time2*\t     t1\n");
    for (int k = 0; k < 64; k++) {
        if (k == 32)
            len += (size_t)sprintf(text + len, " time3*\t     t1\n");
        len += (size_t)sprintf(text + len, "00000000\t0000000000000000\n");
    }
    len += (size_t)sprintf(text + len, "time2\n");
    for (int k = 0; k < 64; k++) {
        if (k == 32)
            len += (size_t)sprintf(text + len, "time3\n");
        len += (size_t)sprintf(text + len, "0000000000000000\n");
    }
    sprintf(text + len, "%d\n%d\n", responses, requests);
    return text;
}

/* Splits a board file into its lines (newlines kept out); returns the count. */
static int file_lines(const char *board_path, char ***lines_out)
{
    char *text = vplat_read_file(board_path);
    assert_non_null(text);
    int count = 0;
    char **lines = malloc(sizeof(char *) * 300);
    char *save = NULL;
    for (char *l = strtok_r(text, "\n", &save); l && count < 300; l = strtok_r(NULL, "\n", &save))
        lines[count++] = strdup(l);
    free(text);
    *lines_out = lines;
    return count;
}

static void free_lines(char **lines, int count)
{
    for (int i = 0; i < count; i++)
        free(lines[i]);
    free(lines);
}

static void test_first_cycles_phase(void **state)
{
    (void)state;
    /* E4.1-1: steps 1 and 2 on every call, the exchange on every second. */
    vplat_reg_set(48, 0x13);
    vplat_reg_set(26, 0x0105);
    vplat_reg_set(24, 0x0203);

    Stat_capture(); /* first cycle: scount 0 -> 1 */
    size_t i = assert_commands(0, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 23 0", NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_string_equal(vplat_cmd_mode(1), "r");
    assert_string_equal(buffer, "./spiWrite -m 1 -l 3 -d 1 1 23 0");
    assert_int_equal(scount, 1);
    assert_int_equal(vplat_spi_exchanges(), 0);
    assert_false(vplat_exists("/ftpdir/stat.txt"));
    assert_false(vplat_exists("/ftpdir/lock"));

    Stat_capture(); /* second cycle: the exchange */
    i = assert_commands(i, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 23 0", RESP_READ, REQ_READ,
                        RM_LOCK, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_string_equal(vplat_cmd_mode(i - 1), "r");
    assert_int_equal(scount, 0);
    assert_int_equal(vplat_spi_exchanges(), 1);
    char *expected = zero_stat_text(5, 3);
    assert_file("/ftpdir/stat.txt", expected);
    free(expected);
    assert_false(vplat_exists("/ftpdir/lock"));

    Stat_capture(); /* third cycle: steps 1 and 2 only */
    i = assert_commands(i, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 23 0", NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_int_equal(vplat_spi_exchanges(), 1);

    vplat_reg_set(48, 0x04); /* bit 2 already set: written unchanged */
    Stat_capture();          /* fourth cycle: the exchange again */
    i = assert_commands(i, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 4 0", RESP_READ, REQ_READ,
                        RM_LOCK, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_int_equal(vplat_spi_exchanges(), 2);
    assert_int_equal(scount, 0);
}

static void test_flag_from_start_through_stat_read(void **state)
{
    (void)state;
    /* E4.1-1 through the statistics step: the capture runs before the
     * counter readings of Part 4.2, and only while the flag is on. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    vplat_reg_set(48, 0x00);
    Stat_read();
    size_t i =
        assert_commands(0, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 4 0", RESP_READ, REQ_READ, NULL);
    Stat_read();
    i = assert_commands(i, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 4 0", RESP_READ, REQ_READ,
                        RM_LOCK, RESP_READ, REQ_READ, NULL);
    Stat_read();
    i = assert_commands(i, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 4 0", RESP_READ, REQ_READ, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_int_equal(vplat_spi_exchanges(), 1);
}

static void test_flag_off_keeps_phase(void **state)
{
    (void)state;
    /* Part 4.1 "State and lifecycle": cycles with the flag off leave scount
     * alone, so the next cycle with the flag on performs the exchange. */
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1");
    Stat_read();
    assert_int_equal(scount, 1);
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "0");
    size_t i = vplat_cmd_count();
    Stat_read();
    Stat_read();
    i = assert_commands(i, RESP_READ, REQ_READ, RESP_READ, REQ_READ, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_int_equal(scount, 1);
    assert_int_equal(vplat_spi_exchanges(), 0);
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1");
    Stat_read();
    assert_int_equal(vplat_spi_exchanges(), 1);
    assert_int_equal(scount, 0);
}

static void test_golden_stat_file(void **state)
{
    (void)state;
    /* A whole stat file from a known reply, byte for byte; lines 133 and 134
     * carry only the low bytes of 0x1234 and 0xABCD (E4.1-5). */
    uint8_t rx[FRAME];
    pattern_reply(rx);
    vplat_spi_set_reply(rx, sizeof rx);
    vplat_reg_set(26, 0x1234);
    vplat_reg_set(24, 0xABCD);
    scount = 1;
    Stat_capture();
    assert_file("/ftpdir/stat.txt", GOLDEN_STAT);
    assert_int_equal(strlen(GOLDEN_STAT), 2 * 16 + 64 * 26 + 6 + 6 + 64 * 17 + 3 + 4);
}

static void test_all_zero_reply(void **state)
{
    (void)state;
    /* E4.1-2 */
    uint8_t rx[FRAME] = {0};
    vplat_spi_set_reply(rx, sizeof rx);
    vplat_reg_set(26, 0);
    vplat_reg_set(24, 0);
    scount = 1;
    Stat_capture();
    char **lines;
    int count = file_lines("/ftpdir/stat.txt", &lines);
    assert_int_equal(count, 134);
    for (int l = 2; l <= 66; l++)
        if (l != 34)
            assert_string_equal(lines[l - 1], "00000000\t0000000000000000");
    for (int l = 68; l <= 132; l++)
        if (l != 100)
            assert_string_equal(lines[l - 1], "0000000000000000");
    free_lines(lines, count);
    char *expected = zero_stat_text(0, 0);
    assert_file("/ftpdir/stat.txt", expected);
    free(expected);
}

static void test_unused_bytes_never_printed(void **state)
{
    (void)state;
    /* E4.1-3: byte 12 of every long record and byte 8 of every short record
     * set, everything else zero: the file is that of an all-zero reply. */
    uint8_t rx[FRAME] = {0};
    for (int k = 0; k < 64; k++)
        rx[2 + 13 * k + 12] = 0xEE;
    for (int k = 0; k < 64; k++)
        rx[834 + 9 * k + 8] = 0xDD;
    /* The two bytes clocked in with the command bytes are ignored too. */
    rx[0] = 0xCC;
    rx[1] = 0xBB;
    vplat_spi_set_reply(rx, sizeof rx);
    vplat_reg_set(26, 0);
    vplat_reg_set(24, 0);
    scount = 1;
    Stat_capture();
    char *expected = zero_stat_text(0, 0);
    assert_file("/ftpdir/stat.txt", expected);
    free(expected);
}

static void test_four_tables_of_32_lines(void **state)
{
    (void)state;
    /* E4.1-4 */
    uint8_t rx[FRAME];
    pattern_reply(rx);
    vplat_spi_set_reply(rx, sizeof rx);
    scount = 1;
    Stat_capture();
    char **lines;
    int count = file_lines("/ftpdir/stat.txt", &lines);
    assert_int_equal(count, 134);
    static const char *const headers[] = {" time2*\t     t1", " time3*\t     t1", "time2", "time3"};
    static const size_t widths[] = {25, 25, 16, 16};
    for (int t = 0; t < 4; t++) {
        int header = 33 * t; /* lines 1, 34, 67 and 100 */
        assert_string_equal(lines[header], headers[t]);
        for (int l = header + 1; l <= header + 32; l++) {
            assert_int_equal(strlen(lines[l]), widths[t]);
            assert_int_equal(strspn(lines[l], "0123456789abcdef\t"), widths[t]);
        }
    }
    /* The next line after each table is a header or a counter line. */
    assert_string_equal(lines[132], "0");
    assert_string_equal(lines[133], "0");
    free_lines(lines, count);
}

static void test_counter_lines_low_byte_only(void **state)
{
    (void)state;
    /* E4.1-5: 0xFF12 and 0x01FF give 18 and 255, not 65298 and 511. */
    vplat_reg_set(26, 0xFF12);
    vplat_reg_set(24, 0x01FF);
    scount = 1;
    Stat_capture();
    char *text = vplat_read_file("/ftpdir/stat.txt");
    assert_non_null(text);
    size_t len = strlen(text);
    assert_true(len > 8);
    assert_string_equal(text + len - 8, "\n18\n255\n");
    free(text);
}

static void test_counter_read_failure_writes_zero(void **state)
{
    (void)state;
    /* Our choice (capture.c, step 11): a counter read that cannot start or
     * prints fewer than five lines is written as 0; garbage parses as 0. */
    vplat_fail_command(RESP_READ);
    vplat_on_command(REQ_READ, "one\ntwo\n");
    scount = 1;
    Stat_capture();
    char *text = vplat_read_file("/ftpdir/stat.txt");
    assert_non_null(text);
    assert_string_equal(text + strlen(text) - 5, "\n0\n0\n");
    free(text);

    vplat_on_command(RESP_READ, spi_output("AA AA zz 12\n"));
    vplat_on_command(REQ_READ, spi_output("AA\n"));
    scount = 1;
    Stat_capture();
    text = vplat_read_file("/ftpdir/stat.txt");
    assert_string_equal(text + strlen(text) - 5, "\n0\n0\n");
    free(text);
    assert_false(vplat_exists("/ftpdir/lock"));
}

static void test_descriptor_and_ioctls(void **state)
{
    (void)state;
    /* Steps 5 to 8: the device set-up and the one transfer descriptor. */
    scount = 1;
    Stat_capture();
    const struct vplat_spi_record *r = vplat_spi_last();
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
    assert_int_equal(vplat_spi_exchanges(), 1);
    assert_int_equal(vplat_spi_open_count(), 0); /* closed again (step 10) */
}

static void test_stat_out_untouched(void **state)
{
    (void)state;
    /* Part 4.1 Interfaces: the capture does not touch Stat_Out. */
    vplat_reg_set(26, 0x1234);
    vplat_reg_set(24, 0x5678);
    Stat_capture();
    Stat_capture();
    static const struct stat_out zero;
    assert_memory_equal(&Stat_Out, &zero, sizeof zero);
}

/* Lock state seen by the register tool while it reads each register. */
struct lock_probe {
    int reg26_lock;
    int reg26_stat;
    int reg48_lock;
};

static void probe_lock(int reg, void *ctx)
{
    struct lock_probe *p = ctx;
    if (reg == 26) {
        p->reg26_lock = vplat_exists("/ftpdir/lock");
        p->reg26_stat = vplat_exists("/ftpdir/stat.txt");
    } else if (reg == 48) {
        p->reg48_lock = vplat_exists("/ftpdir/lock");
    }
}

static void test_lock_around_rewrite(void **state)
{
    (void)state;
    /* Steps 4 and 12: the lock exists from before the exchange until the
     * stat file is closed, and is removed by "rm /ftpdir/lock". */
    struct lock_probe probe = {0, 0, 1};
    vplat_set_reg_hooks(probe_lock, NULL, &probe);
    scount = 1;
    Stat_capture();
    assert_int_equal(probe.reg48_lock, 0);
    assert_int_equal(probe.reg26_lock, 1);
    assert_int_equal(probe.reg26_stat, 1);
    assert_false(vplat_exists("/ftpdir/lock"));
    assert_int_equal(vplat_cmd_occurrences(RM_LOCK), 1);
    assert_string_equal(vplat_cmd(vplat_cmd_count() - 1), RM_LOCK);

    /* Without a working rm the empty lock file stays: it was created. */
    vplat_tool_absent("rm", 1);
    scount = 1;
    Stat_capture();
    assert_file("/ftpdir/lock", "");
}

static void test_register48_read_failure_skips_write(void **state)
{
    (void)state;
    /* Part 2.2 "Left to the implementer" (project-wide): a failed read of
     * register 48 is not written back; the phase runs on all the same. */
    vplat_fail_command(R48_READ);
    Stat_capture();
    size_t i = assert_commands(0, R48_READ, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_int_equal(scount, 1);

    vplat_on_command(R48_READ, "spiWrite\nonly two lines\n");
    Stat_capture();
    i = assert_commands(i, R48_READ, RESP_READ, REQ_READ, RM_LOCK, NULL);
    assert_int_equal(i, vplat_cmd_count());
    assert_int_equal(vplat_spi_exchanges(), 1);

    /* Garbage on the fifth line would parse as 0, a value that did not come
     * from the register: no write either. */
    vplat_on_command(R48_READ, spi_output("AA AA zz\n"));
    Stat_capture();
    i = assert_commands(i, R48_READ, NULL);
    assert_int_equal(i, vplat_cmd_count());
}

static void test_stat_file_cannot_open(void **state)
{
    (void)state;
    /* Part 4.1 "Left to the implementer", our choice: no exchange, the lock
     * removed, scount back to 0 as after an exchange. */
    char *dir = strdup(vplat_path("/ftpdir/stat.txt"));
    assert_int_equal(mkdir(dir, 0755), 0);
    scount = 1;
    Stat_capture();
    assert_commands(0, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 4 0", RM_LOCK, NULL);
    assert_int_equal(vplat_cmd_count(), 3);
    assert_int_equal(vplat_spi_exchanges(), 0);
    assert_int_equal(vplat_spi_open_count(), 0);
    assert_false(vplat_exists("/ftpdir/lock"));
    assert_int_equal(scount, 0);

    /* Once the file can be written again, the phase goes on. */
    rmdir(dir);
    free(dir);
    Stat_capture();
    assert_int_equal(vplat_spi_exchanges(), 0);
    Stat_capture();
    assert_int_equal(vplat_spi_exchanges(), 1);
    assert_true(vplat_exists("/ftpdir/stat.txt"));
}

static void test_frame_allocation_failure(void **state)
{
    (void)state;
    /* Part 4.1 "Left to the implementer", our choice: either frame missing
     * means no exchange and the lock removed; nothing leaks (ASan). */
    vplat_write_file("/ftpdir/stat.txt", "previous\n");
    for (int which = 1; which <= 2; which++) {
        vplat_cmd_clear();
        vplat_fail_alloc(which);
        scount = 1;
        Stat_capture();
        assert_commands(0, R48_READ, "./spiWrite -m 1 -l 3 -d 1 1 4 0", RM_LOCK, NULL);
        assert_int_equal(vplat_cmd_count(), 3);
        assert_int_equal(vplat_spi_exchanges(), 0);
        assert_false(vplat_exists("/ftpdir/lock"));
        assert_int_equal(scount, 0);
        assert_file("/ftpdir/stat.txt", "previous\n");
    }
}

/* ---- pabort: the six SPI device failures end the process ---- */

struct abort_case {
    const char *message;
    int fail_op; /* enum vplat_spi_op, or -1 for a missing device */
    int err;
};

static void expect_abort(const struct abort_case *c)
{
    int fds[2];
    assert_int_equal(pipe(fds), 0);
    fflush(NULL);
    pid_t pid = fork();
    assert_true(pid >= 0);
    if (pid == 0) {
        signal(SIGABRT, SIG_DFL);
        struct rlimit no_core = {0, 0};
        setrlimit(RLIMIT_CORE, &no_core);
        close(fds[0]);
        dup2(fds[1], 2);
        if (c->fail_op < 0)
            vplat_spi_present(0);
        else
            vplat_spi_fail((enum vplat_spi_op)c->fail_op);
        scount = 1;
        Stat_capture();
        _exit(0); /* not reached when pabort works */
    }
    close(fds[1]);
    char got[512] = "";
    size_t len = 0;
    ssize_t r;
    while ((r = read(fds[0], got + len, sizeof got - 1 - len)) > 0)
        len += (size_t)r;
    got[len] = '\0';
    close(fds[0]);
    int status = 0;
    assert_int_equal(waitpid(pid, &status, 0), pid);
    assert_true(WIFSIGNALED(status));
    assert_int_equal(WTERMSIG(status), SIGABRT);
    char expected[256];
    snprintf(expected, sizeof expected, "%s: %s\n", c->message, strerror(c->err));
    /* Under qemu-arm the emulator adds its own note on the abort after the
     * daemon's text; the daemon's part must be exactly the perror line. */
    size_t want = strlen(expected);
    if (len > want && strncmp(got + want, "qemu: ", 6) == 0)
        got[want] = '\0';
    assert_string_equal(got, expected);
    /* The lock was created before the device was opened and stays. */
    assert_file("/ftpdir/lock", "");
    assert_int_equal(vplat_cmd_occurrences(RM_LOCK), 0);
}

static void test_pabort_messages(void **state)
{
    (void)state;
    static const struct abort_case cases[] = {
        {"can't open device", -1, ENOENT},
        {"can't open device", VSPI_OPEN, ENOENT},
        {"can't set spi mode", VSPI_WR_MODE, EIO},
        {"can't get spi mode", VSPI_RD_MODE, EIO},
        {"can't set bits per word", VSPI_WR_BITS, EIO},
        {"can't get bits per word", VSPI_RD_BITS, EIO},
        {"can't send spi message", VSPI_MESSAGE, EIO},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; i++) {
        unlink(vplat_path("/ftpdir/lock"));
        expect_abort(&cases[i]);
    }
}

int main(void)
{
#define T(f) cmocka_unit_test_setup_teardown(f, capture_setup, board_teardown)
    const struct CMUnitTest tests[] = {
        T(test_first_cycles_phase),
        T(test_flag_from_start_through_stat_read),
        T(test_flag_off_keeps_phase),
        T(test_golden_stat_file),
        T(test_all_zero_reply),
        T(test_unused_bytes_never_printed),
        T(test_four_tables_of_32_lines),
        T(test_counter_lines_low_byte_only),
        T(test_counter_read_failure_writes_zero),
        T(test_descriptor_and_ioctls),
        T(test_stat_out_untouched),
        T(test_lock_around_rewrite),
        T(test_register48_read_failure_skips_write),
        T(test_stat_file_cannot_open),
        T(test_frame_allocation_failure),
        T(test_pabort_messages),
    };
#undef T
    return cmocka_run_group_tests(tests, NULL, NULL);
}
