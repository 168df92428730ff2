/* DAC serial write (Part 2.3). */
#include "hardware/dac.h"

#include "hardware/gpio_work.h"

enum { DAC_MAX_VALUE = 65535, DAC_MAX_COMMAND = 15 };

int SPIWriteInt(unsigned command, unsigned value)
{
    /* Part 2.3 "Left to the implementer": a value above 65535 (the centre
     * comes from a file without a range check) would change the command
     * bits, so it is clamped; a command above 15 is not sent at all. */
    if (command > DAC_MAX_COMMAND)
        return -1;
    if (value > DAC_MAX_VALUE)
        value = DAC_MAX_VALUE;

    PinSetOutput("106", 0);
    unsigned word = (command << 20) | (value << 4);
    for (int i = 0; i < 24; i++) {
        PinSetOutput("96", 1);
        PinSetOutput("118", (int)((word >> 23) & 1u));
        PinSetOutput("96", 0);
        word <<= 1;
    }
    PinSetOutput("106", 1);
    return 0;
}
