/* Helpers shared by the unit tests: cmocka includes and board set-up. */
#ifndef ZARVENT_TEST_SUPPORT_H
#define ZARVENT_TEST_SUPPORT_H

#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <cmocka.h>

#include "vplat.h"

/* 2026-11-16 13:27:46 UTC, the clock of the spec's worked examples. */
#define T_EXAMPLE ((time_t)1794835666)

/* Fresh virtual board with the usual tree at the given time; returns 0 (cmocka set-up). */
int board_setup_at(time_t start);
/* cmocka set-up: board_setup_at(T_EXAMPLE). */
int board_setup(void **state);
/* cmocka tear-down: removes the board. */
int board_teardown(void **state);

/* The lines as the supervision set-up leaves them: indicators 70 to 78
 * outputs at 0; the test input 79, antenna inputs 86 and 87 and the button
 * 88 inputs at 1 (released, no fault). */
void supervision_lines(void);

/* Every global of the statistics and status page (Parts 4.1 to 4.3) back
 * at its start value, Command_Out cleared, timeinfo at the board's clock. */
void statistics_globals_reset(void);
/* cmocka set-up: board_setup, then statistics_globals_reset. */
int statistics_setup(void **state);

/* Five-line spiWrite output whose fifth line is fifth (give it with its newline). */
const char *spi_output(const char *fifth);

/* Asserts that the command log from index from holds exactly the given
 * commands in order (NULL-terminated list); returns the index after them. */
size_t assert_commands(size_t from, ...);
/* Asserts the content of a board file. */
void assert_file(const char *board_path, const char *expected);

/* Runs fn with standard error redirected; returns what it printed (malloc'd). */
char *capture_stderr(void (*fn)(void *), void *arg);
/* Takes CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH out of the effective set, so
 * that a read-only directory refuses even root (tests run as root in CI);
 * 0 on success. restore_caps puts them back. */
int drop_dac_override(void);
void restore_caps(void);
/* Local Unix time of a UTC date (the board model keeps local = UTC). */
time_t utc_time(int year, int month, int day, int hour, int minute, int second);

#endif
