/* DAC serial write over GPIO lines 96 (clock), 118 (data), 106 (select) (Part 2.3). */
#ifndef ZARVENT_DAC_H
#define ZARVENT_DAC_H

/* Shifts the 24-bit word (command << 20 | value << 4) out MSB first. */
int SPIWriteInt(unsigned command, unsigned value);

#endif
