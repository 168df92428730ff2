/* The virtual board: the second backend of the OS seam (src/platform/platform.h).
 *
 * It answers the daemon's calls from a model of the board instead of the OS:
 * - files: every path maps into a per-run directory tree (absolute paths
 *   under the root, relative ones under the working directory
 *   /usr/bin/Zarvent); nothing outside it is touched;
 * - sysfs GPIO under /sys/class/gpio with the kernel's semantics, a log of
 *   every level written and a decoder of the DAC words of Part 2.3;
 * - commands: the finite set of command lines the Parts run, answered by
 *   tool models (spiWrite over a register file, wrFPGA, ntpq, ntptime, the
 *   shell utilities acting on the tree; mkfs, mount, agetty, mversion,
 *   adjtimex, ifconfig recorded only), after per-test rules;
 * - the SPI capture device /dev/spidev1.0 and its ioctls;
 * - one virtual clock for time, localtime (UTC), sleep and usleep.
 * Unit tests drive it from one thread; the simulator adds its scheduler. */
#ifndef ZARVENT_VPLAT_H
#define ZARVENT_VPLAT_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

/* ---- set-up ---- */
/* Fresh model: new temporary root, empty logs and rules, clock at start_unix seconds. */
void vplat_reset(time_t start_unix);
/* Fresh model whose tree is the given directory (created when missing, kept by vplat_cleanup). */
void vplat_reset_in(const char *root, time_t start_unix);
/* vplat_cleanup leaves the tree in place (the simulator's outputs). */
void vplat_forget_root(void);
/* Creates the board's usual tree: /usr/bin/Zarvent with its tools and bitstream,
 * /ramcache/zarvent, /ftpdir, /etc/network, and lines 85 (output, 1) and 176 (input, 1). */
void vplat_board_tree(void);
/* Removes the temporary root. */
void vplat_cleanup(void);
/* Root directory of the tree. */
const char *vplat_root(void);
/* Host path of a board path (absolute, or relative to /usr/bin/Zarvent). Static buffer per thread.
 */
const char *vplat_path(const char *board_path);

/* ---- files of the tree ---- */
/* Writes text to a board path (parents created). */
void vplat_write_file(const char *board_path, const char *text);
/* Whole content of a board file, malloc'd (caller frees), or NULL when missing. */
char *vplat_read_file(const char *board_path);
/* 1 when the board path exists. */
int vplat_exists(const char *board_path);
/* Makes a board directory read-only (0555) or writable (0755). */
void vplat_chmod(const char *board_path, int writable);

/* ---- clock ---- */
/* Virtual time in microseconds since the epoch. */
int64_t vplat_now_us(void);
/* Sets the virtual clock. */
void vplat_set_now_us(int64_t us);
/* Virtual cost of starting one command, in microseconds (0 in unit tests). */
void vplat_set_command_cost_us(int64_t us);

/* ---- commands ---- */
enum vplat_rule_kind { VRULE_OUTPUT, VRULE_FAIL_START };
/* Every run of exactly cmd prints output (rules win over the tool models). */
void vplat_on_command(const char *cmd, const char *output);
/* The next run of cmd prints output; queued answers are used in order before any standing rule. */
void vplat_on_command_once(const char *cmd, const char *output);
/* plat_popen of cmd returns NULL (the command cannot be started). */
void vplat_fail_command(const char *cmd);
/* Commands whose first word is tool print nothing (as a shell does for a missing program). */
void vplat_tool_absent(const char *tool, int absent);
/* Number of commands run so far. */
size_t vplat_cmd_count(void);
/* Command line i (0-based) and the mode it was run with. */
const char *vplat_cmd(size_t i);
const char *vplat_cmd_mode(size_t i);
/* Virtual time at which command i was started. */
int64_t vplat_cmd_time_us(size_t i);
/* Index of the first command equal to cmd at or after from, or -1. */
long vplat_cmd_find(const char *cmd, size_t from);
/* Number of commands equal to cmd. */
size_t vplat_cmd_occurrences(const char *cmd);
/* Forgets the command log (not the rules). */
void vplat_cmd_clear(void);

/* ---- FPGA register model behind spiWrite (Part 2.2) ---- */
/* Sets the value a read of reg returns (bytes printed least significant first). */
void vplat_reg_set(int reg, uint64_t value);
/* Last value read from or written to reg. */
uint64_t vplat_reg_get(int reg);
/* Whether the FPGA answers: configured answers "AA AA A5" to writes; unconfigured prints "FF FF
 * FF". */
void vplat_fpga_configured(int configured);
int vplat_fpga_is_configured(void);
/* Register tool faults: 0 none, 1 garbage on every line, 2 only two lines. */
void vplat_regtool_fault(int fault);
/* Hooks for the simulator: called for every register read (may change the value) and write. */
typedef void (*vplat_reg_read_hook)(int reg, void *ctx);
typedef void (*vplat_reg_write_hook)(int reg, uint64_t value, int nbytes, const char *cmd,
                                     void *ctx);
void vplat_set_reg_hooks(vplat_reg_read_hook on_read, vplat_reg_write_hook on_write, void *ctx);
/* Number of times wrFPGA ran. */
int vplat_loader_runs(void);

/* ---- ntpd and the kernel clock ---- */
enum vplat_peer { VPEER_NONE, VPEER_SYSTEM, VPEER_PPS, VPEER_BOTH };
/* Which GPS association ntpq -p lists. */
void vplat_set_peer(enum vplat_peer peer);
/* The RMC status letter shown by ntpq -c clockvar ('A' valid, 'V' void). */
void vplat_set_rmc_status(char status);
/* TAI offset shown by ntptime. */
void vplat_set_tai(int tai);
/* ntptime's classic output for the given time (UTC as local time). */
void vplat_format_ntptime(int64_t unix_us, int tai, char *out, size_t n);
/* "ntpq -c clockvar" output for the given time and status letter. */
void vplat_format_clockvar(int64_t unix_us, char status, char *out, size_t n);
/* Address of eth0 set by ifconfig ("" when never set). */
const char *vplat_eth0_address(void);
/* 1 once "mount /dev/ram1 /ramcache" ran. */
int vplat_ramdisk_mounted(void);

/* ---- GPIO model (sysfs semantics) ---- */
/* Exports a line the system provides, with its direction and level. */
void vplat_gpio_provide(int line, int output, int level);
/* Drives an input line's level. */
void vplat_gpio_set_input(int line, int level);
/* Queues levels returned by the next reads of a line (then the set level again). */
void vplat_gpio_queue_reads(int line, const int *levels, size_t count);
/* The line reads 1 during the first high_us microseconds of every virtual second (0 = off). */
void vplat_gpio_pulse(int line, int64_t high_us);
/* Level of a line (driven or input), -1 when not exported. */
int vplat_gpio_level(int line);
/* 1 when exported. */
int vplat_gpio_exported(int line);
/* "in", "out", or "" when not exported. */
const char *vplat_gpio_direction(int line);
/* Edge text, "" when none. */
const char *vplat_gpio_edge(int line);
/* Number of reads of the line's value file. */
size_t vplat_gpio_reads(int line);

/* One write to a value file (by open/write or by a shell echo). */
struct vplat_level {
    int64_t t_us;
    int line;
    int level;
    int by_shell;
};
size_t vplat_level_count(void);
const struct vplat_level *vplat_level_at(size_t i);
/* Bytes of the last write to a line's value file through the pin layer, and their length. */
const char *vplat_gpio_last_write(int line, size_t *len);

/* DAC words decoded from lines 106 (select), 96 (clock), 118 (data). */
struct vplat_dac_word {
    int64_t t_us;
    uint32_t word;
    int bits;      /* 24 for a complete frame */
    int malformed; /* frame with other than 24 clock pulses */
};
size_t vplat_dac_count(void);
const struct vplat_dac_word *vplat_dac_at(size_t i);

/* ---- SPI capture device (Part 4.1) ---- */
enum vplat_spi_op {
    VSPI_OPEN,
    VSPI_WR_MODE,
    VSPI_RD_MODE,
    VSPI_WR_BITS,
    VSPI_RD_BITS,
    VSPI_MESSAGE
};
/* Whether /dev/spidev1.0 exists. */
void vplat_spi_present(int present);
/* Makes one operation fail (open returns -1, ioctl -1, message 0). */
void vplat_spi_fail(enum vplat_spi_op op);
/* The 1410 bytes the device clocks in on the next exchanges. */
void vplat_spi_set_reply(const uint8_t *reply, size_t len);
/* Number of exchanges, and the fields of the last transfer descriptor. */
int vplat_spi_exchanges(void);
struct vplat_spi_record {
    uint32_t len, speed_hz;
    uint16_t delay_usecs;
    uint8_t bits_per_word, cs_change, tx_nbits, rx_nbits, word_delay_usecs, pad;
    uint8_t tx_head[2];
    int tx_rest_zero;
    uint8_t mode_written, bits_written;
};
const struct vplat_spi_record *vplat_spi_last(void);
/* Descriptors of the device still open. */
int vplat_spi_open_count(void);

/* ---- memory ---- */
/* The count-th next plat_malloc (1 = the next) returns NULL. */
void vplat_fail_alloc(int count);

/* ---- threads ---- */
/* Entries passed to plat_thread_start, in order (unit tests: recorded, not started). */
size_t vplat_thread_count(void);
void *(*vplat_thread_entry(size_t i))(void *);

#endif
