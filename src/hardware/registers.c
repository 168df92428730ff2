/* FPGA register access (Part 2.2). */
#include "hardware/registers.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "daemon/shared.h"
#include "hardware/runner.h"
#include "platform/platform.h"

/* Start of the data at column 6, or NULL when the line is shorter: nothing is
 * read beyond what the tool printed. */
static const char *data_start(const char *line, size_t column)
{
    return strlen(line) > column ? line + column : NULL;
}

long reg_parse_byte(const char *line)
{
    const char *p = data_start(line, REG_DATA_COLUMN);
    return p ? strtol(p, NULL, 16) : 0;
}

long reg_parse_word(const char *line)
{
    const char *lo = data_start(line, REG_DATA_COLUMN);
    const char *hi = data_start(line, REG_DATA_COLUMN + 2);
    /* Unsigned arithmetic: a tool printing a long hex string (garbage) must
     * not make the sum overflow; valid bytes give the same result. */
    unsigned long value = lo ? (unsigned long)strtol(lo, NULL, 16) : 0;
    if (hi)
        value += 256UL * (unsigned long)strtol(hi, NULL, 16);
    return (long)value;
}

uint32_t reg_parse_bytes4(const char *line)
{
    const char *p = data_start(line, REG_DATA_COLUMN);
    uint32_t raw = 0;
    if (p == NULL)
        return 0;
    for (int k = 0; k < 4; k++) {
        char *end;
        long b = strtol(p, &end, 16);
        raw += (uint32_t)b << (8 * k);
        p = end;
    }
    return raw;
}

int reg_read_line(const char *cmd, int calls, char *line)
{
    return run_read_lines(cmd, calls, 5, line, REG_LINE);
}

/* 1 when a hexadecimal number begins at column 6 (after blanks, as strtol
 * reads it). A fifth line without one parses as 0 (Part 2.2), but that 0 did
 * not come from the register: the read counts as failed, so that no caller
 * writes it back (GUIDE section 2); value readers take 0 all the same. */
static int has_number(const char *line)
{
    const char *p = data_start(line, REG_DATA_COLUMN);
    if (p == NULL)
        return 0;
    char *end;
    (void)strtol(p, &end, 16);
    return end != p;
}

int reg_read_byte(const char *cmd, int calls, long *value)
{
    char line[REG_LINE];
    if (reg_read_line(cmd, calls, line) != 0 || !has_number(line))
        return -1;
    *value = reg_parse_byte(line);
    return 0;
}

int reg_read_word(const char *cmd, long *value)
{
    char line[REG_LINE];
    if (reg_read_line(cmd, 5, line) != 0 || !has_number(line))
        return -1;
    *value = reg_parse_word(line);
    return 0;
}

int reg_write(int reg, long value, const char *mode)
{
    char cmd[REG_LINE];
    snprintf(cmd, sizeof cmd, "./spiWrite -m 1 -l 3 -d 1 %d %d 0", reg, (int)value);
    return run_command(cmd, mode);
}

int Read_Control(void)
{
    long value;
    if (reg_read_byte(REG2_READ_CMD, 6, &value) != 0)
        return -1;
    return (int)value;
}

int reg2_modify(int set, int clear, const char *mode)
{
    int written = -1;
    plat_mutex_lock(&reg2_lock);
    int value = Read_Control();
    if (value >= 0) {
        written = (value | set) & ~clear;
        reg_write(2, written, mode);
    }
    plat_mutex_unlock(&reg2_lock);
    return written;
}
