/* Start-up, RAM disk and threads (Part 1.1). */
#ifndef ZARVENT_STARTUP_H
#define ZARVENT_STARTUP_H

/* Prepares the RAM disk, console, statistics, marker files and timeinfo: the twelve steps of
 * Part 1.1. */
void CreateRAMDisk(void);
/* Starts and detaches the FPGA, supervision and cycle threads, in this order. */
void CreateThreads(void);

#endif
