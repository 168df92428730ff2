/* The command runner (Overview, "Command runner"; GUIDE section 1).
 *
 * Every external action is a command line run through the OS seam. Output is
 * read line by line with fgets into a fixed buffer and handed back at a fixed
 * line; nothing is ever read beyond what the command printed. A line longer
 * than the buffer is read in pieces, each fgets call counting as one line,
 * exactly as the spec's fgets loops do. */
#ifndef ZARVENT_RUNNER_H
#define ZARVENT_RUNNER_H

#include <stddef.h>

/* Failures of run_read_lines: both negative, so "< 0" means no line. */
enum { RUN_NOT_STARTED = -1, RUN_SHORT = -2 };

/* Runs cmd in mode ("r" or "w") and closes it at once, output unread. 0 when it started, -1 when
 * not. */
int run_command(const char *cmd, const char *mode);
/* Runs cmd (mode "r"), calls fgets `calls` times into buf (size bufsz, >= 2);
 * a call that finds the end leaves buf as it was. Returns 0 when at least
 * `need` calls read a line (buf then holds the last line read); RUN_NOT_STARTED
 * when the command could not be started, RUN_SHORT when it printed fewer
 * lines (buf then empty in both cases). */
int run_read_lines(const char *cmd, int calls, int need, char *buf, size_t bufsz);
/* Runs cmd (mode "r") and reads up to 1024 bytes of its output in one fread
 * into a heap buffer (Part 5.1). 1 when it printed at least one byte, 0 when
 * it printed nothing or could not be started. */
int run_has_output(const char *cmd);

#endif
