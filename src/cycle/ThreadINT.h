/* The one-second cycle (Parts 3.1 to 3.6): the pulse-triggered driver and
 * the steps that run on the cycle thread. */
#ifndef ZARVENT_THREADINT_H
#define ZARVENT_THREADINT_H

#include <stdint.h>

/* ---- Part 3.1: cycle driver (ThreadINT.c) ---- */
/* Thread entry: set-up, then the poll loop forever. */
void *ThreadSrvINT(void *arg);
/* Set-up of Part 3.1: line 19, start time, DAC defaults. */
void cycle_setup(void);
/* One poll of line 19 (steps 1 to 3, without the sleep); 1 when a cycle ran. */
int cycle_poll(void);
/* The ten steps of one cycle, in the spec's order. */
void cycle_run(void);

/* ---- Part 3.2: oscillator steering (steering.c) ---- */
/* Loads the centre value, sends DAC command 4 with 2048 and command 3 with it. */
void DAC_DEFAULTS(void);
/* One steered second: the new DAC code, register 1 bit 0, the DAC write, a chart point. */
void Calculate_offset(void);

/* ---- Part 3.3: relay reset (relay.c) ---- */
/* Reads register 28 and pulses register 2 bits 1/2 five seconds after an event. */
int Relay_Reset(void);

/* ---- Part 3.4: time hand-over (handover.c) ---- */
/* Runs ntptime; stamp to Command_Out 143-160, date and time to slot. Always 0. */
int ControlTime(char *slot);
/* Seconds count of the coming second from the hex stamp at text. */
int64_t Time_to_hex(const char *text);
/* Hands the seconds count to the FPGA through registers 10, 3 and 11. */
int Send_Time(void);

/* ---- Part 3.5: client-activity indicator (client.c) ---- */
/* Switches lines 70 and 71 off. Always 0. */
int Service(void);
/* Flashes line 71 when register 26's low byte is not zero. */
int ReadNtpCli(void);

/* ---- Part 3.6: offset readout and synchronisation enable (offset.c) ---- */
/* Reads register 14 into the offset text at Command_Out 53 and the jitter blocks. */
int32_t ControlOffset(void);
/* Qualifies the receiver from "ntpq -c clockvar"; sets or clears Sync_En and register 1 bit 0. */
int Nav_Parse(void);

#endif
