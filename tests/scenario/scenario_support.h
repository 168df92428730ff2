/* Scenario tests: the whole daemon against the board model (sim/), run in a
 * child process so that every scenario starts from the daemon's initial
 * state; assertions read the board's files and the run's logs afterwards. */
#ifndef ZARVENT_SCENARIO_SUPPORT_H
#define ZARVENT_SCENARIO_SUPPORT_H

#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <cmocka.h>

struct run {
    char dir[256];
};

/* The scenario of a test file: each scenario_*_test.c defines it. */
extern const char SCENARIO[];
/* The run of SCENARIO shared by the tests of one file. */
extern struct run r;
/* cmocka group set-up: runs SCENARIO once into r. */
int scenario_group_setup(void **state);
/* cmocka group tear-down: removes r's directory. */
int scenario_group_teardown(void **state);

/* Runs the scenario text for its duration; fails the test unless the run ends normally. */
void run_scenario(struct run *run, const char *scenario);
/* Content of a log of the run (commands.log, dac.log, ...), malloc'd. */
char *run_log(struct run *run, const char *name);
/* Content of a file of the board (board path), malloc'd, NULL when missing. */
char *run_board_file(struct run *run, const char *board_path);
/* 1 when the board path exists. */
int run_board_exists(struct run *run, const char *board_path);
/* Number of lines of text containing needle. */
int count_lines(const char *text, const char *needle);
/* Value of "key N" in summary.log. */
long run_summary(struct run *run, const char *key);
/* Removes the run's directory. */
void run_cleanup(struct run *run);

#endif
