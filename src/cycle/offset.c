/* Offset readout and synchronisation enable (Part 3.6). */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

#define REG14_READ_CMD "./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0"
#define CLOCKVAR_CMD "ntpq -c clockvar"
/* 0xFEEEEEED: raw values above it mean no measurement (Part 3.6 step 4). */
#define NO_MEASUREMENT_ABOVE 4277071597u

enum {
    HALF_SECOND_NS = 500000000,
    ONE_SECOND_NS = 1000000000,
    OFFSET_TEXT_SIZE = 9, /* at most 8 characters and the terminator */
    JITTER_BLOCK = 128,
    SYNC_CYCLES = 60,
    QUERY_LINE = 100,
    RMC_STATUS_COLUMN = 27,
};

/* The 32-bit two's complement value of u: what signed 32-bit arithmetic
 * gives, computed without the undefined behaviour of a signed overflow. */
static int32_t wrap_i32(uint32_t u)
{
    if (u <= (uint32_t)INT32_MAX)
        return (int32_t)u;
    return (int32_t)(u - 0x80000000u) - INT32_MAX - 1;
}

/* Steps 3 to 5: the offset in nanoseconds from the raw phase in 10 ns ticks. */
static int32_t fold_phase(uint32_t raw)
{
    if (raw > NO_MEASUREMENT_ABOVE)
        return 0;
    /* Part 3.6 "Left to the implementer": raw values from 100000000 up to
     * 4277071597 follow the signed 32-bit arithmetic of step 5. The product
     * raw x 10 is formed in unsigned 32-bit arithmetic (defined wrap-around)
     * and converted with the two's complement result, and so is the negation
     * (-x of -2147483648 is -2147483648 again), so no signed overflow, which
     * C leaves undefined, ever happens. For raw below 100000000 nothing wraps. */
    uint32_t xu = raw * 10u;
    int32_t x = wrap_i32(xu);
    if (x > HALF_SECOND_NS)
        return ONE_SECOND_NS - x; /* x <= INT32_MAX: no overflow */
    return wrap_i32(0u - xu);
}

/* Step 8: the peak-to-peak jitter over blocks of 128 cycles. */
static void jitter_block(int32_t offset)
{
    if (offset > Max)
        Max = offset;
    if (offset < Min)
        Min = offset;
    n++;
    /* ">=" rather than "==": a count that was ever beyond 128 still ends its block. */
    if (n >= JITTER_BLOCK) {
        /* Max - Min in 32-bit two's complement, like step 5 (only the
         * impossible raw values of step 5 can make it wrap). */
        Jitter = wrap_i32((uint32_t)Max - (uint32_t)Min);
        Max = offset;
        Min = offset;
        n = 0;
    }
}

int32_t ControlOffset(void)
{
    char line[REG_LINE];
    int32_t offset = 0;
    /* Part 3.6 "Left to the implementer": a register-14 read that cannot be
     * started or prints fewer than five lines is taken as no measurement,
     * offset 0, exactly as 0xFEEEEEEE: the steering then sees no error and
     * its integral does not grow from a value that did not come from the
     * FPGA; the 0 enters the text and the block statistics like any other. */
    if (reg_read_line(REG14_READ_CMD, 6, line) == 0)
        offset = fold_phase(reg_parse_bytes4(line));

    char text[OFFSET_TEXT_SIZE];
    int len = snprintf(text, sizeof text, "%ld", (long)offset);
    if (len < 0)
        text[0] = '\0';
    command_out_put(CO_OFFSET, text, strlen(text) + 1);

    jitter_block(offset);
    return offset;
}

/* Reads "ntpq -c clockvar" as step 2 does: three fgets calls into one
 * 100-byte buffer. Returns -1 when the command cannot be started, 0 when it
 * printed fewer than three lines, 1 with the third line in line. The command
 * runner (run_read_lines) reports both failures alike; Part 3.6 treats them
 * differently (a command that cannot start changes nothing), so the three
 * calls are made here. */
/* Register 1 = register 2 with bit 0 set or cleared (steps 4 and 5). A read
 * of register 2 that failed is not written back (Part 2.2 "Left to the
 * implementer"): the write is skipped. */
static void write_sync_bit(int set)
{
    int control = Read_Control();
    if (control < 0)
        return;
    reg_write(1, set ? (control | 1) : (control & ~1), "r");
}

int Nav_Parse(void)
{
    char line[QUERY_LINE];
    int got = run_read_lines(CLOCKVAR_CMD, 3, 3, line, sizeof line);
    if (got == RUN_NOT_STARTED)
        return 0; /* cannot be started: nothing changes (step 1) */

    /* Part 3.6 "Left to the implementer": fewer than three lines, or a third
     * line too short to hold position 27, is a cycle without valid data;
     * nothing is read beyond what ntpq printed. */
    int valid = got == 0 && strlen(line) > RMC_STATUS_COLUMN && line[RMC_STATUS_COLUMN] == 'A';

    if (!valid) {
        Sync_En = 0;
        sync_count = 0;
        write_sync_bit(0);
        return 0;
    }
    sync_count++;
    if (sync_count >= SYNC_CYCLES) {
        Sync_En = 1;
        sync_count = 0;
        write_sync_bit(1);
    }
    return 0;
}
