/* The board model of the simulator, on top of the virtual board (vplat.h):
 * the oscillator steered by the DAC, the FPGA's phase, counters, events and
 * time hand-over check, ntpd's reference and the receiver, input lines, and
 * the scenario's faults. Everything runs in virtual time, seeded. */
#ifndef ZARVENT_BOARD_H
#define ZARVENT_BOARD_H

#include <stdint.h>
#include <stdio.h>

struct board_config {
    uint32_t seed;
    double gain;      /* ns/s of frequency per DAC code (a higher code makes the offset fall) */
    int natural_code; /* DAC code at which the oscillator is exactly on frequency */
    double noise_ns;  /* white phase noise of each measurement, ns (standard deviation) */
    double initial_offset;   /* offset at start, ns */
    int64_t pulse_high_us;   /* high part of each second on line 19 */
    int requests, responses; /* PTP packets per second (mean) */
};

/* Defaults: an OCXO pulled about ±0.4 ppm across the DAC range (0.012 ns/s per code). */
void board_default_config(struct board_config *c);
/* Installs the model on a freshly reset virtual board (hooks, lines, files). */
void board_init(const struct board_config *c);
/* Applies one scenario command (the words after "at T"); 0 when understood. */
int board_command(char **words, int count, char *error, size_t error_size);

struct board_stats {
    int handovers_accepted; /* register 11 closed with the right seconds count */
    int handovers_rejected; /* closed with a wrong count */
    int handovers_open;     /* register 10 written */
    int64_t last_accepted_us;
    int dac_words, dac_malformed;
    int last_dac_code;
    double offset_ns;  /* the model's current offset */
    int event_acks[2]; /* acknowledgements of event flags 1 and 2 */
};
void board_stats(struct board_stats *s);

/* Writes the logs of the run into dir: commands.log, levels.log, dac.log,
 * registers.log, handover.log, offset.log. */
int board_write_logs(const char *dir);

#endif
