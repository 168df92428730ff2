/* Oscillator steering (Part 3.2): the pure arithmetic of one steered second
 * and the chart-file bound, for steering.c and its tests. */
#ifndef ZARVENT_STEERING_H
#define ZARVENT_STEERING_H

#include <stdint.h>

/* Part 3.2 "Left to the implementer": chart files accumulate at one per minute
 * on the RAM disk. CreateRAMDisk (Part 1.1) makes it with "mkfs -q /dev/ram1
 * 8192": 8192 blocks of 1 KiB and, at mke2fs's one inode per 4 KiB for so
 * small a file system, 2048 inodes. The file system's own structures take
 * about 600 blocks (boot block, superblock, group descriptors and the blocks
 * reserved for growing them, two bitmaps, an inode table of 2048 inodes of
 * 256 bytes, lost+found) and 11 inodes, and mke2fs reserves 5 % of the blocks
 * for root. A chart file of a whole minute holds 60 lines of about 40 bytes:
 * 3 blocks, 1 inode and a directory entry of 36 bytes (1000 entries take
 * about 36 blocks of directory). The chart files get at most half of the
 * blocks and half of the inodes that remain; the other half stays free for
 * the status page, the error log, the stat files, the markers, the lock files
 * and ntpd's files under /ramcache/ntp. The inodes are the tighter limit
 * (1018 files); the bound is the round number below it: 1000 files, the
 * newest 16 hours and 40 minutes of chart points. */
enum {
    RAMDISK_BLOCKS = 8192,
    RAMDISK_INODES = 2048,
    RAMDISK_FS_BLOCKS = 600,
    RAMDISK_FS_INODES = 11,
    RAMDISK_ROOT_BLOCKS = RAMDISK_BLOCKS / 20,
    CHART_FILE_BLOCKS = 3,
    CHART_DIR_BLOCKS_PER_1000 = 36,
    CHART_BLOCK_BUDGET = (RAMDISK_BLOCKS - RAMDISK_FS_BLOCKS - RAMDISK_ROOT_BLOCKS) / 2,
    CHART_INODE_BUDGET = (RAMDISK_INODES - RAMDISK_FS_INODES) / 2,
    CHART_FILES_KEPT = 1000,
    CHART_BLOCKS_USED =
        CHART_FILES_KEPT * CHART_FILE_BLOCKS + CHART_FILES_KEPT * CHART_DIR_BLOCKS_PER_1000 / 1000,
};
_Static_assert(CHART_FILES_KEPT <= CHART_INODE_BUDGET, "chart files fit the inode budget");
_Static_assert(CHART_BLOCKS_USED <= CHART_BLOCK_BUDGET, "chart files fit the block budget");

/* DAC range and the offset clamp of Part 3.2. */
enum { DAC_CODE_MAX = 65535, STEER_OFFSET_LIMIT = 10000 };

/* One second of the law of Part 3.2, steps 2 to 6. */
struct steering_step {
    int32_t e;    /* offset after the clamp to -10000..10000 (Sync_Offset) */
    int32_t S;    /* filtered offset (the next Summ_prev) */
    int64_t Intg; /* integral after this second */
    int64_t d;    /* difference S - e */
    double exact; /* control value of step 6 before its conversion to an integer */
    int32_t u;    /* control value before the DAC clamp (the next Save_Sync) */
};

/* Steps 2 to 6 of Calculate_offset from the centre, the offset read, the
 * previous filtered offset and the integral; no global is touched. */
struct steering_step steering_law(int32_t centre, long offset, int32_t summ_prev, int64_t intg);
/* Step 9: the code clamped to the DAC range 0..65535. */
uint32_t steering_dac_code(int32_t u);
/* Double to 32-bit integer, truncating toward zero, saturated at the limits. */
int32_t steering_to_i32(double v);
/* Number of chart files this process remembers (at most CHART_FILES_KEPT). */
int steering_chart_count(void);
/* Forgets the remembered chart files (a fresh process). */
void steering_chart_forget(void);

#endif
