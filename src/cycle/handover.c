/* Time hand-over to the FPGA (Part 3.4). */
#include <inttypes.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "hardware/runner.h"

enum {
    NTPTIME_LINE = 100,
    STAMP_COLUMN = 7, /* characters 7 to 24 of the second line: the time stamp */
    DATE_COLUMN = 31, /* characters 31 to 54: the date and time */
    NTPTIME_MIN = 55, /* the second line must reach character 54 */
    TX_CMD = 80,
};

/* 2208988800 seconds from 1900 to 1970, less one: the count of the coming second. */
#define NTP_TO_UNIX_NEXT 2208988799u

/* Steps 1 to 4 of ControlTime with the date and time going to Command_Out
 * position pos. Returns 0 when the slots were written, -1 when not.
 * Part 3.4 "Left to the implementer": when ntptime cannot be started,
 * prints fewer than two lines, or prints a second line shorter than 55
 * characters, both slots are left unchanged; nothing is read beyond what
 * the tool printed. */
static int read_ntptime(size_t pos)
{
    char line[NTPTIME_LINE];
    if (run_read_lines("ntptime", 2, 2, line, sizeof line) != 0)
        return -1;
    if (strlen(line) < NTPTIME_MIN)
        return -1;
    command_out_put(CO_STAMP, line + STAMP_COLUMN, CO_STAMP_LEN);
    char when[CO_TIME_LEN + 1];
    memcpy(when, line + DATE_COLUMN, CO_TIME_LEN);
    when[CO_TIME_LEN] = '\0';
    command_out_put(pos, when, sizeof when);
    return 0;
}

int ControlTime(char *slot)
{
    /* The slot is a position of Command_Out (117 or 65); it is written
     * through the shared accessors. A pointer outside the record is ignored. */
    uintptr_t base = (uintptr_t)Command_Out;
    uintptr_t at = (uintptr_t)slot;
    if (at < base || at - base > CO_SIZE - (CO_TIME_LEN + 1))
        return 0;
    read_ntptime((size_t)(at - base));
    return 0;
}

int64_t Time_to_hex(const char *text)
{
    /* The "%Lx" conversion of the spec: a hexadecimal number at the start of
     * text, ending at the point. strtoull reads the same digits and, unlike
     * the scanf family, has a defined result for any text. */
    uint64_t stamp = strtoull(text, NULL, 16);
    uint64_t count = stamp - NTP_TO_UNIX_NEXT + (uint64_t)(int64_t)atomic_load(&Leap_Time);
    return (int64_t)count;
}

/* The time stamp now in Command_Out 143-160, as text with a terminator. */
static int64_t stamp_count(void)
{
    char stamp[CO_STAMP_LEN + 1];
    command_out_get(CO_STAMP, stamp, CO_STAMP_LEN);
    stamp[CO_STAMP_LEN] = '\0';
    return Time_to_hex(stamp);
}

int Send_Time(void)
{
    char cmd[TX_CMD];
    int64_t t = stamp_count(); /* step 1 */
    uint64_t tu = (uint64_t)t;

    /* Step 2: open the transaction in register 10. A command that cannot be
     * started ends the call (Part 3.4 failure handling). */
    snprintf(cmd, sizeof cmd, "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 %d\n", Trans_count);
    if (run_command(cmd, "w") != 0)
        return 0;

    /* Step 3: the six low bytes, least significant first. */
    snprintf(cmd, sizeof cmd,
             "/usr/bin/Zarvent/spiWrite -m 1 -l 8 -d 6 3 %" PRId64 " %" PRId64 " %" PRId64
             " %" PRId64 " %" PRId64 " %" PRId64 "\n",
             (int64_t)(tu & 0xFF), (int64_t)((tu >> 8) & 0xFF), (int64_t)((tu >> 16) & 0xFF),
             (int64_t)((tu >> 24) & 0xFF), (int64_t)((tu >> 32) & 0xFF),
             (int64_t)((tu >> 40) & 0xFF));
    if (run_command(cmd, "w") != 0)
        return 0;

    /* Step 4: the second reading. Part 3.4 "Left to the implementer": when it
     * fails, the second is not known to be unchanged, so the transaction is
     * not closed and the next cycle repeats it with the same number. */
    if (read_ntptime(CO_NOW) != 0)
        return 0;
    if (stamp_count() != t) /* steps 5 and 6 */
        return 0;

    /* Step 6: advance the number, then close with the number that opened.
     * The step from 0 to 1 comes only after the close has been started, so a
     * failed close right after 255 leaves 0 for the next transaction. */
    uint8_t opened = Trans_count;
    Trans_count = (uint8_t)(opened + 1);
    snprintf(cmd, sizeof cmd, "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 %d\n", opened);
    if (run_command(cmd, "w") != 0)
        return 0;
    if (Trans_count == 0)
        Trans_count = 1;
    return 0;
}
