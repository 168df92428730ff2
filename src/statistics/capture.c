/* SPI capture transfer and stat file (Part 4.1). */
#include "statistics/Statistic.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "daemon/shared.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

#define LOCK_FILE "/ftpdir/lock"
#define STAT_FILE "/ftpdir/stat.txt"
#define SPI_DEVICE "/dev/spidev1.0"

enum {
    FRAME_LEN = 1410,
    RECORDS_START = 2,
    LONG_RECORDS = 64,
    LONG_RECORD = 13,
    SHORT_RECORD = 9,
    TABLE_LINES = 32,
};

/* Called right after the failing open or ioctl, so errno is still that
 * call's reason when perror prints it (Part 4.1 Failure handling). */
void pabort(const char *message)
{
    perror(message);
    abort();
}

/* Creates the empty lock file (opened for writing and closed at once). */
static void create_lock(void)
{
    FILE *f = plat_fopen(LOCK_FILE, "w");
    if (f != NULL)
        fclose(f);
}

static void print_bytes_down(FILE *out, const uint8_t *bytes, int from, int to)
{
    for (int i = from; i >= to; i--)
        fprintf(out, "%.2x", bytes[i]);
}

/* Step 9: the records, from receive byte 2 on. */
static void write_tables(FILE *out, const uint8_t *rx)
{
    uint32_t offset = RECORDS_START;
    for (int k = 0; k < LONG_RECORDS; k++, offset += LONG_RECORD) {
        if (k == 0)
            fputs(" time2*\t     t1\n", out);
        else if (k == TABLE_LINES)
            fputs(" time3*\t     t1\n", out);
        const uint8_t *r = rx + offset;
        print_bytes_down(out, r, 11, 8); /* byte 12 is not printed */
        fputc('\t', out);
        print_bytes_down(out, r, 7, 0);
        fputc('\n', out);
    }
    for (int k = 0; offset + SHORT_RECORD <= dataLen; k++, offset += SHORT_RECORD) {
        if (k == 0)
            fputs("time2\n", out);
        else if (k == TABLE_LINES)
            fputs("time3\n", out);
        print_bytes_down(out, rx + offset, 7, 0); /* byte 8 is not printed */
        fputc('\n', out);
    }
}

/* Step 11: the low byte of a counter (one strtol from character 6). A read
 * that fails is written as 0, like a fifth line without a number. */
static void write_counter_low_byte(FILE *out, const char *cmd)
{
    long value = 0;
    if (reg_read_byte(cmd, 5, &value) != 0)
        value = 0;
    fprintf(out, "%d\n", (int)value);
}

/* The exchange is skipped: frames freed, phase restarted, lock removed. */
static void skip_exchange(uint8_t *tx, uint8_t *rx)
{
    plat_free(tx);
    plat_free(rx);
    scount = 0;
    run_command("rm " LOCK_FILE, "r");
}

void Stat_capture(void)
{
    /* Steps 1 and 2, on every call. A read of register 48 that failed is
     * not written back (Part 2.2 "Left to the implementer"). */
    long r48;
    if (reg_read_byte("./spiWrite -m 0 -l 3 -d 1 48 0", 5, &r48) == 0) {
        snprintf(buffer, sizeof buffer, "./spiWrite -m 1 -l 3 -d 1 1 %d 0", (int)(r48 | 4));
        run_command(buffer, "r");
    }

    /* Step 3: the exchange happens in the cycle that finds scount at 1. */
    uint8_t old = scount;
    scount = (uint8_t)(old + 1);
    if (old != 1)
        return;

    create_lock();

    /* Part 4.1 "Left to the implementer", our choice: when a frame cannot
     * be allocated or the stat file cannot be opened, the exchange is
     * skipped and the lock removed; scount restarts at 0 as after an
     * exchange, keeping the every-second-cycle phase. */
    uint8_t *tx = plat_malloc(FRAME_LEN);
    uint8_t *rx = plat_malloc(FRAME_LEN);
    if (tx == NULL || rx == NULL) {
        skip_exchange(tx, rx);
        return;
    }
    dataLen = FRAME_LEN;
    bits = 8;

    int fd = plat_open(SPI_DEVICE, O_RDWR);
    if (fd < 0)
        pabort("can't open device");
    if (plat_ioctl(fd, SPI_IOC_WR_MODE, &smode) == -1)
        pabort("can't set spi mode");
    if (plat_ioctl(fd, SPI_IOC_RD_MODE, &smode) == -1)
        pabort("can't get spi mode");
    if (plat_ioctl(fd, SPI_IOC_WR_BITS_PER_WORD, &bits) == -1)
        pabort("can't set bits per word");
    if (plat_ioctl(fd, SPI_IOC_RD_BITS_PER_WORD, &bits) == -1)
        pabort("can't get bits per word");

    /* Step 9 opens the stat file after the exchange; it is opened here,
     * before the exchange (step 8), so that a file that cannot be opened
     * skips the exchange (choice above). It is opened after the device's
     * set-up (step 6), so that an end through pabort there leaves the
     * previous stat file as it was; only a failing exchange ends the
     * daemon with the file already emptied. */
    FILE *out = plat_fopen(STAT_FILE, "w");
    if (out == NULL) {
        plat_close(fd);
        skip_exchange(tx, rx);
        return;
    }

    memset(tx, 0, dataLen);
    tx[0] = 0x00;
    tx[1] = 0x31;
    memset(rx, 0, dataLen);
    struct spi_ioc_transfer tr;
    memset(&tr, 0, sizeof tr);
    tr.tx_buf = (uintptr_t)tx;
    tr.rx_buf = (uintptr_t)rx;
    tr.len = dataLen;
    tr.bits_per_word = bits;
    if (plat_ioctl(fd, SPI_IOC_MESSAGE(1), &tr) < 1)
        pabort("can't send spi message");

    write_tables(out, rx);

    plat_close(fd);
    scount = 0;
    plat_free(tx);
    plat_free(rx);

    write_counter_low_byte(out, "./spiWrite -m 0 -l 4 -d 2 26 0 0");
    write_counter_low_byte(out, "./spiWrite -m 0 -l 4 -d 2 24 0 0");
    fclose(out);
    run_command("rm " LOCK_FILE, "r");
}
