/* Shared state of the daemon (Part 1.2): every global with the spec's name,
 * type and initial value, and the accessors that serialise what the threads
 * share.
 *
 * Left to the implementer (Part 1.2), our choice: access shared between
 * threads is serialised. `Command_Out` and the time snapshot behind `timeinfo`
 * are guarded by one short lock that is never held across a call to the OS
 * seam (the accessors below copy in or out under it); `Alarm` and `Leap_Time`
 * are atomic; every read-modify-write of FPGA register 2 holds `reg2_lock`
 * (Parts 2.2, 3.3, 5.1, 5.2). The positions of `Command_Out` are the spec's. */
#ifndef ZARVENT_SHARED_H
#define ZARVENT_SHARED_H

#include <pthread.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

/* Positions in `Command_Out` (Part 1.2). */
enum {
    CO_SIZE = 163,
    CO_REF_NAME = 0,  /* 0-17: reference name */
    CO_REF_PREV = 18, /* 18-35: previous reference name */
    CO_OFFSET = 53,   /* 53-61: offset text */
    CO_ANTENNA = 63,  /* antenna code, a number */
    CO_NOW = 65,      /* 65-89: current date and time */
    CO_EVENT = 117,   /* 117-141: start or alarm time */
    CO_STAMP = 143,   /* 143-160: NTP time stamp, no terminator */
    CO_STAMP_LEN = 18,
    CO_TIME_LEN = 24,
};

/* Packet statistics record (Part 4.2), in the spec's field order. */
struct stat_out {
    uint64_t ReqSec[60];
    uint64_t RespSec[60];
    uint64_t ReqMin[1440];
    uint64_t RespMin[1440];
    uint64_t ReqHour[24];
    uint64_t RespHour[24];
    uint64_t ReqDay[32];
    uint64_t RespDay[32];
    float RespAvg;
    float ReqAvg;
    float RespMinSum;
    float ReqMinSum;
    float RespHourSum;
    float ReqHourSum;
    /* Part 1.2 gives the record 24928 bytes; the fourteen fields of Part 4.2
     * fill 24920 of them. The rest is reserved and stays zero. */
    uint8_t reserved[8];
};
_Static_assert(sizeof(struct stat_out) == 24928, "Stat_Out is 24928 bytes (Part 1.2)");

/* ---- Globals used by more than one operation (Part 1.2) ---- */
extern char Command_Out[CO_SIZE];
extern struct stat_out Stat_Out;
extern struct tm *timeinfo; /* never NULL once CreateRAMDisk has run */
extern int32_t Sync_En;     /* cycle thread only */
extern int32_t DAC_VOLTAGE; /* cycle thread only */
extern _Atomic uint8_t Alarm;
extern _Atomic int32_t Leap_Time;
extern int32_t Jitter; /* cycle thread only */

/* ---- Globals private to one Part (Part 1.2) ---- */
extern pthread_t threadFPGA, threadLED, threadINT; /* 1.1 */
extern uint8_t first_f;                            /* 3.1 */
extern int32_t Save_Sync;                          /* 3.2 */
extern int32_t Sync_Offset, Summ_prev;             /* 3.2 */
extern int64_t Intg;                               /* 3.2: widened, see steering */
extern uint32_t flags;                             /* 3.3 */
extern uint8_t over_1, over_2;                     /* 3.3 */
extern time_t event1, event2, now;                 /* 3.3 */
extern uint8_t Trans_count;                        /* 3.4 */
extern int32_t Max, Min, n;                        /* 3.6 */
extern uint32_t sync_count;                        /* 3.6 */
extern uint8_t smode, bits;                        /* 4.1 */
extern uint32_t dataLen;                           /* 4.1 */
extern uint8_t scount;                             /* 4.1 */
extern char buffer[100];                           /* 4.1, 4.2 */
extern float z_prev, dz_prev;                      /* 4.3 */
extern uint8_t UptimeFlag;                         /* 5.2 */
extern uint8_t alarm_latch;                        /* 5.2: the spec's `mutex`, as a flag */
extern time_t event, now_en;                       /* 5.3 */
extern uint8_t over;                               /* 5.3 */
extern int32_t cfgOk;                              /* 6.1 */
extern const char *FPGA_A5;                        /* 6.1 */

/* Set to 1 by the supervision thread's set-up (Part 5.1) once lines 96, 106
 * and 118 are configured; the cycle thread's set-up waits for it (Part 3.1). */
extern atomic_int dac_lines_ready;

/* Serialises every read-modify-write of FPGA register 2 (plat_mutex_lock). */
extern pthread_mutex_t reg2_lock;

/* Copies len bytes of src into Command_Out at pos (under the shared lock). */
void command_out_put(size_t pos, const char *src, size_t len);
/* Copies len bytes of Command_Out from pos into dst (under the shared lock). */
void command_out_get(size_t pos, char *dst, size_t len);
/* Writes one byte of Command_Out. */
void command_out_set_byte(size_t pos, unsigned char value);
/* Reads one byte of Command_Out. */
unsigned char command_out_byte(size_t pos);
/* Copies the zero-terminated text at pos (at most max-1 bytes) into dst, terminated. */
void command_out_text(size_t pos, char *dst, size_t max);

/* Converts t to local time and makes it the time every reader of `timeinfo` sees. */
void timeinfo_refresh(time_t t);
/* Copies the latest conversion into *out. */
void timeinfo_get(struct tm *out);

#endif
