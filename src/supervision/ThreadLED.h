/* Supervision (Parts 5.1 to 5.5): the slow loop on the supervision thread. */
#ifndef ZARVENT_THREADLED_H
#define ZARVENT_THREADLED_H

/* ---- Part 5.1: supervision loop and reference indication (ThreadLED.c) ---- */
/* Thread entry: set-up, "adjtimex -t 10082", then passes forever. */
void *ThreadSrvLED(void *arg);
/* Exports and configures the lines of Part 5.1 in order, then Leap_Time = Parse_File(). */
void init_gpio_input(void);
/* One pass (steps 1 to 4, without the final sleep). */
void led_pass(void);
/* 1 when "ntpq -p | grep '*G'" printed at least one byte. */
int ControlRefclock(void);
/* 1 when "ntpq -p | grep 'oG'" printed at least one byte. */
int ControlRefPPS(void);

/* ---- Part 5.2: alarm logic (alarm.c) ---- */
/* Alarm state, indicators 76/77, event time, reference-valid bit. Returns 0. */
int ControlAlarm(void);

/* ---- Part 5.3: antenna monitor (antenna.c) ---- */
/* Antenna code, indicators 74/75, hold-off of line 85. Returns 0. */
int ControlAntenna(void);

/* ---- Part 5.4: factory-default button (factory.c) ---- */
/* Restores the factory network address and configuration files while line 88 reads 0. Returns 0. */
int NtpDefault(void);

/* ---- Part 5.5: leap-second offset file (leap.c) ---- */
/* TAI-UTC from /leap-seconds.list; -1 when it cannot be read. */
int Parse_File(void);

#endif
