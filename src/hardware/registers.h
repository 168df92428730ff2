/* FPGA register access through the register tool `spiWrite` (Part 2.2).
 *
 * Values come from the fifth output line, from column 6, base 16, least
 * significant byte first. Left to the implementer (Part 2.2), our choice: a
 * read that fails (the tool cannot start, prints fewer than five lines, or
 * its fifth line holds no hexadecimal number at column 6) reports the
 * failure, and no caller writes back a value that did not come from the
 * register: the write is skipped. Readers of values take 0, as the spec's
 * parse would. */
#ifndef ZARVENT_REGISTERS_H
#define ZARVENT_REGISTERS_H

#include <stddef.h>
#include <stdint.h>

enum { REG_LINE = 100, REG_DATA_COLUMN = 6 };

/* Command lines of Part 2.2 used by more than one Part. */
#define REG2_READ_CMD "./spiWrite -m 0 -l 3 -d 1 2 0"

/* One-byte value at column 6 of a fifth line (0 when no hex number is there). */
long reg_parse_byte(const char *line);
/* Two-byte value: number at column 6 plus 256 times the number at column 8. */
long reg_parse_word(const char *line);
/* Four successive numbers from column 6, least significant first. */
uint32_t reg_parse_bytes4(const char *line);

/* Runs a read command with `calls` fgets calls (5 or 6, Part 2.2) and parses
 * one byte into *value. 0 on success, -1 when the read failed. */
int reg_read_byte(const char *cmd, int calls, long *value);
/* Runs a two-byte read command (five fgets calls). 0 on success, -1 on failure. */
int reg_read_word(const char *cmd, long *value);
/* Runs a read command and hands back its fifth line in line (size REG_LINE). */
int reg_read_line(const char *cmd, int calls, char *line);
/* Writes one byte to register 1 or 2: "./spiWrite -m 1 -l 3 -d 1 1 %d 0" or
 * "./spiWrite -m 1 -l 3 -d 1 2 %d 0", run in mode and closed at once.
 * 0 when it started, -1 when not. */
int reg_write(int reg, long value, const char *mode);

/* Data byte of register 2 ("./spiWrite -m 0 -l 3 -d 1 2 0", six fgets calls);
 * -1 when the read failed. */
int Read_Control(void);

/* Read-modify-write of register 2 under reg2_lock: reads it, sets the bits of
 * `set`, clears those of `clear`, writes it with mode. Skips the write when
 * the read failed; returns the value written, or -1. */
int reg2_modify(int set, int clear, const char *mode);

#endif
