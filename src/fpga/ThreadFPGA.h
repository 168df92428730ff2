/* FPGA load and readiness check (Part 6.1), on the FPGA thread. */
#ifndef ZARVENT_THREADFPGA_H
#define ZARVENT_THREADFPGA_H

/* Thread entry: InitFPGA, then SrvFPGA and a two-second sleep, forever. */
void *ThreadSrvFPGA(void *arg);
/* Exports lines 182 and 13 and makes them inputs. */
int InitFPGA(void);
/* One service step: BurnFPGA. */
void SrvFPGA(void);
/* Loads the bitstream once, then returns only when the FPGA answers "AA AA A5". */
void BurnFPGA(void);

#endif
