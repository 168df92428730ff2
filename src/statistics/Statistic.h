/* Statistics and status page (Parts 4.1 to 4.3), all on the cycle thread. */
#ifndef ZARVENT_STATISTIC_H
#define ZARVENT_STATISTIC_H

/* ---- Part 4.2: packet counters (counters.c) ---- */
/* First step of every cycle: statistics flag, timeinfo, capture, counters. */
void Stat_read(void);

/* ---- Part 4.1: SPI capture transfer and stat file (capture.c) ---- */
/* Register 48/1 on every call; every second call the 1410-byte exchange and /ftpdir/stat.txt. */
void Stat_capture(void);
/* perror-style message with errno's text on standard error, then abort. */
void pabort(const char *message) __attribute__((noreturn));

/* ---- Part 4.3: status page writer (status_page.c) ---- */
/* Rewrites /ramcache/zarvent/ntp_data.txt under its lock file. Returns 0. */
int FileWrite(void);

#endif
