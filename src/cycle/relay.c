/* Relay reset (Part 3.3). */
#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "hardware/registers.h"
#include "platform/platform.h"

#define REG28_READ_CMD "./spiWrite -m 0 -l 3 -d 1 28 0 0"

enum { EVENT_DELAY_S = 4 }; /* a pulse comes when more than 4 s have passed */

/* Pulses one bit of register 2: two read-modify-writes, each from a fresh
 * read, first setting the bit, then clearing it (step 4). A read that failed
 * skips its write (Part 2.2 "Left to the implementer"). */
static void pulse_reg2_bit(int mask)
{
    reg2_modify(mask, 0, "w");
    reg2_modify(0, mask, "w");
}

int Relay_Reset(void)
{
    long value;
    /* Part 2.2 "Left to the implementer": a register-28 read that cannot be
     * started or prints fewer than five lines carries no flags; pending
     * events keep their timers. */
    if (reg_read_byte(REG28_READ_CMD, 5, &value) != 0)
        value = 0;
    flags = (uint32_t)value & 3u;

    if ((flags & 1u) && over_1 != 1) {
        event1 = plat_time();
        over_1 = 1;
    }
    if ((flags & 2u) && over_2 != 2) {
        event2 = plat_time();
        over_2 = 2;
    }
    /* Events 1 and 2 are timed independently; bit 1 is pulsed before bit 2. */
    if (over_1 == 1) {
        now = plat_time();
        if (now - event1 > EVENT_DELAY_S) {
            event1 = 0;
            over_1 = 0;
            pulse_reg2_bit(2);
        }
    }
    if (over_2 == 2) {
        now = plat_time();
        if (now - event2 > EVENT_DELAY_S) {
            event2 = 0;
            over_2 = 0;
            pulse_reg2_bit(4);
        }
    }
    return 0;
}
