/* The virtual board: second backend of the OS seam. See vplat.h. */
#include "vplat.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <linux/spi/spidev.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/platform.h"
#include "vplat_internal.h"

#define WORKDIR "/usr/bin/Zarvent"
enum { MAX_LINES = 256, VFD_BASE = 1000, MAX_VFD = 64, SPI_FRAME = 1410 };

/* One lock guards the whole model; it is never held while the daemon runs. */
static pthread_mutex_t vp_lock = PTHREAD_MUTEX_INITIALIZER;
#define LOCK() pthread_mutex_lock(&vp_lock)
#define UNLOCK() pthread_mutex_unlock(&vp_lock)

struct cmd_entry {
    char *cmd;
    char mode[4];
    int64_t t_us;
};

struct rule {
    char *cmd;
    char *output;
    int kind;
    int once;
    int used;
};

struct gpio_line {
    int exported;
    int output;
    int level;
    char edge[16];
    int queue[64];
    size_t queue_len, queue_pos;
    int64_t pulse_high_us;
    size_t reads;
    char last_write[16];
    size_t last_write_len;
};

enum vfd_kind { VFD_FREE, VFD_EXPORT, VFD_DIRECTION, VFD_VALUE, VFD_EDGE, VFD_SPI };
struct vfd {
    int kind;
    int line;
};

struct stream {
    FILE *f;
    char *buf;
};

static struct {
    char root[512];
    int root_kept;
    int64_t now_us;
    int64_t command_cost_us;

    struct cmd_entry *cmds;
    size_t ncmds, capcmds;
    struct rule *rules;
    size_t nrules, caprules;
    char absent[8][32];
    int nabsent;

    uint64_t regs[64];
    int configured;
    int loader_runs;
    int regtool_fault;
    vplat_reg_read_hook on_read;
    vplat_reg_write_hook on_write;
    void *reg_ctx;

    int peer;
    char rmc;
    int tai;
    char eth0[64];
    int mounted;

    struct gpio_line gpio[MAX_LINES];
    struct vplat_level *levels;
    size_t nlevels, caplevels;
    int dac_selected, dac_clock, dac_data, dac_bits;
    uint32_t dac_word;
    struct vplat_dac_word *dacs;
    size_t ndacs, capdacs;

    struct vfd vfds[MAX_VFD];
    struct stream streams[MAX_VFD];

    int spi_present;
    int spi_fail[VSPI_MESSAGE + 1];
    uint8_t spi_reply[SPI_FRAME];
    int spi_exchanges;
    struct vplat_spi_record spi_last;
    uint8_t spi_mode;
    uint8_t spi_bits;

    int alloc_fail_in;

    void *(*threads[8])(void *);
    size_t nthreads;

    const struct vplat_sched_hooks *sched;
} vp;

/* ------------------------------------------------------------------ helpers */

static void *xrealloc(void *p, size_t n)
{
    void *q = realloc(p, n);
    if (q == NULL) {
        fprintf(stderr, "vplat: out of memory\n");
        abort();
    }
    return q;
}

static char *xstrdup(const char *s)
{
    char *d = strdup(s);
    if (d == NULL)
        abort();
    return d;
}

/* Growable text for tool output. */
struct text {
    char *s;
    size_t len, cap;
};

static void text_add(struct text *t, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
static void text_add(struct text *t, const char *fmt, ...)
{
    va_list ap;
    for (;;) {
        size_t room = t->cap - t->len;
        va_start(ap, fmt);
        int w = vsnprintf(t->s ? t->s + t->len : NULL, room, fmt, ap);
        va_end(ap);
        if (w < 0)
            return;
        if ((size_t)w < room) {
            t->len += (size_t)w;
            return;
        }
        t->cap = (t->cap + (size_t)w + 1) * 2;
        t->s = xrealloc(t->s, t->cap);
    }
}

static void map_path(const char *board_path, char *out, size_t n)
{
    if (board_path[0] == '/')
        snprintf(out, n, "%s%s", vp.root, board_path);
    else
        snprintf(out, n, "%s" WORKDIR "/%s", vp.root, board_path);
}

const char *vplat_path(const char *board_path)
{
    static _Thread_local char buf[1024];
    map_path(board_path, buf, sizeof buf);
    return buf;
}

static void mkdirs(const char *host_path)
{
    char tmp[1024];
    snprintf(tmp, sizeof tmp, "%s", host_path);
    for (char *p = tmp + 1; *p; p++) {
        if (*p == '/') {
            *p = '\0';
            mkdir(tmp, 0755);
            *p = '/';
        }
    }
    mkdir(tmp, 0755);
}

static int rm_entry(const char *path, const struct stat *sb, int flag, struct FTW *ftw)
{
    (void)sb;
    (void)flag;
    (void)ftw;
    chmod(path, 0755);
    remove(path);
    return 0;
}

static void make_writable(const char *path)
{
    /* A directory made read-only by a test must be opened up before removal. */
    DIR *d = opendir(path);
    if (d == NULL)
        return;
    chmod(path, 0755);
    struct dirent *e;
    while ((e = readdir(d)) != NULL) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        if (e->d_type == DT_DIR) {
            char sub[1024];
            snprintf(sub, sizeof sub, "%s/%s", path, e->d_name);
            make_writable(sub);
        }
    }
    closedir(d);
}

/* ------------------------------------------------------------------ set-up */

void vplat_cleanup(void)
{
    LOCK();
    if (vp.root[0] && !vp.root_kept) {
        make_writable(vp.root);
        nftw(vp.root, rm_entry, 16, FTW_DEPTH | FTW_PHYS);
        vp.root[0] = '\0';
    }
    for (size_t i = 0; i < vp.ncmds; i++)
        free(vp.cmds[i].cmd);
    free(vp.cmds);
    vp.cmds = NULL;
    vp.ncmds = vp.capcmds = 0;
    for (size_t i = 0; i < vp.nrules; i++) {
        free(vp.rules[i].cmd);
        free(vp.rules[i].output);
    }
    free(vp.rules);
    vp.rules = NULL;
    vp.nrules = vp.caprules = 0;
    free(vp.levels);
    vp.levels = NULL;
    vp.nlevels = vp.caplevels = 0;
    free(vp.dacs);
    vp.dacs = NULL;
    vp.ndacs = vp.capdacs = 0;
    for (int i = 0; i < MAX_VFD; i++) {
        if (vp.streams[i].f) {
            fclose(vp.streams[i].f);
            free(vp.streams[i].buf);
            vp.streams[i].f = NULL;
        }
    }
    UNLOCK();
}

static void reset_model(const char *root, time_t start_unix)
{
    vplat_cleanup();
    LOCK();
    const struct vplat_sched_hooks *sched = vp.sched;
    memset(&vp, 0, sizeof vp);
    vp.sched = sched;
    if (root) {
        snprintf(vp.root, sizeof vp.root, "%s", root);
        mkdirs(vp.root);
        vp.root_kept = 1;
    } else {
        const char *tmp = getenv("TMPDIR");
        snprintf(vp.root, sizeof vp.root, "%s/zarvent-board-XXXXXX", tmp && *tmp ? tmp : "/tmp");
        if (mkdtemp(vp.root) == NULL) {
            perror("vplat: mkdtemp");
            abort();
        }
    }
    vp.now_us = (int64_t)start_unix * 1000000;
    vp.configured = 1;
    vp.rmc = 'A';
    vp.tai = 37;
    vp.peer = VPEER_SYSTEM;
    vp.spi_present = 1;
    vp.spi_mode = 0;
    vp.spi_bits = 8;
    char p[1024];
    map_path(WORKDIR, p, sizeof p);
    mkdirs(p);
    map_path("/sys/class/gpio", p, sizeof p);
    mkdirs(p);
    UNLOCK();
}

void vplat_reset(time_t start_unix)
{
    reset_model(NULL, start_unix);
}

void vplat_reset_in(const char *root, time_t start_unix)
{
    reset_model(root, start_unix);
}

void vplat_forget_root(void)
{
    LOCK();
    vp.root_kept = 1;
    UNLOCK();
}

const char *vplat_root(void)
{
    return vp.root;
}

void vplat_write_file(const char *board_path, const char *content)
{
    char p[1024];
    map_path(board_path, p, sizeof p);
    char dir[1024];
    snprintf(dir, sizeof dir, "%s", p);
    char *slash = strrchr(dir, '/');
    if (slash) {
        *slash = '\0';
        mkdirs(dir);
    }
    FILE *f = fopen(p, "w");
    if (f == NULL)
        return;
    fputs(content, f);
    fclose(f);
}

static char *read_host_file(const char *p, size_t *len_out)
{
    FILE *f = fopen(p, "r");
    if (f == NULL)
        return NULL;
    struct text t = {0};
    text_add(&t, "%s", "");
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, f)) > 0) {
        if (t.len + got + 1 > t.cap) {
            t.cap = (t.len + got + 1) * 2;
            t.s = xrealloc(t.s, t.cap);
        }
        memcpy(t.s + t.len, chunk, got);
        t.len += got;
        t.s[t.len] = '\0';
    }
    fclose(f);
    if (len_out)
        *len_out = t.len;
    return t.s;
}

char *vplat_read_file(const char *board_path)
{
    char p[1024];
    map_path(board_path, p, sizeof p);
    return read_host_file(p, NULL);
}

int vplat_exists(const char *board_path)
{
    char p[1024];
    struct stat st;
    map_path(board_path, p, sizeof p);
    return stat(p, &st) == 0;
}

void vplat_chmod(const char *board_path, int writable)
{
    char p[1024];
    map_path(board_path, p, sizeof p);
    chmod(p, writable ? 0755 : 0555);
}

void vplat_board_tree(void)
{
    vplat_write_file(WORKDIR "/spiWrite", "#!/bin/sh\n# register tool (modelled)\n");
    vplat_write_file(WORKDIR "/wrFPGA", "#!/bin/sh\n# FPGA loader (modelled)\n");
    vplat_write_file(WORKDIR "/Version_1.rbf", "bitstream\n");
    char p[1024];
    map_path("/ramcache/zarvent", p, sizeof p);
    mkdirs(p);
    map_path("/ftpdir", p, sizeof p);
    mkdirs(p);
    map_path("/etc/network", p, sizeof p);
    mkdirs(p);
    map_path("/dev", p, sizeof p);
    mkdirs(p);
    vplat_gpio_provide(85, 1, 1);
    vplat_gpio_provide(176, 0, 1);
}

/* ------------------------------------------------------------------ clock */

int64_t vplat_now_us(void)
{
    LOCK();
    int64_t t = vp.now_us;
    UNLOCK();
    return t;
}

void vplat_set_now_us(int64_t us)
{
    LOCK();
    vp.now_us = us;
    UNLOCK();
}

void vplat_set_command_cost_us(int64_t us)
{
    LOCK();
    vp.command_cost_us = us;
    UNLOCK();
}

void vplat_internal_set_sched(const struct vplat_sched_hooks *hooks)
{
    LOCK();
    vp.sched = hooks;
    UNLOCK();
}

void vplat_internal_advance(int64_t us)
{
    LOCK();
    vp.now_us += us;
    UNLOCK();
}

/* Lets virtual time pass for the calling thread. */
static void pass_time(int64_t us)
{
    const struct vplat_sched_hooks *s = vp.sched;
    if (s && s->wait)
        s->wait(us);
    else
        vplat_internal_advance(us);
}

/* ------------------------------------------------------------------ GPIO */

static struct gpio_line *line_at(int line)
{
    return line >= 0 && line < MAX_LINES ? &vp.gpio[line] : NULL;
}

static void log_level(int line, int level, int by_shell)
{
    if (vp.nlevels == vp.caplevels) {
        vp.caplevels = vp.caplevels ? vp.caplevels * 2 : 1024;
        vp.levels = xrealloc(vp.levels, vp.caplevels * sizeof *vp.levels);
    }
    vp.levels[vp.nlevels++] = (struct vplat_level){vp.now_us, line, level, by_shell};
}

static void dac_observe(int line, int level)
{
    if (line == 106) {
        if (level == 0 && !vp.dac_selected) {
            vp.dac_selected = 1;
            vp.dac_bits = 0;
            vp.dac_word = 0;
        } else if (level == 1 && vp.dac_selected) {
            vp.dac_selected = 0;
            if (vp.ndacs == vp.capdacs) {
                vp.capdacs = vp.capdacs ? vp.capdacs * 2 : 256;
                vp.dacs = xrealloc(vp.dacs, vp.capdacs * sizeof *vp.dacs);
            }
            vp.dacs[vp.ndacs++] = (struct vplat_dac_word){vp.now_us, vp.dac_word & 0xFFFFFFu,
                                                          vp.dac_bits, vp.dac_bits != 24};
        }
    } else if (line == 118) {
        vp.dac_data = level;
    } else if (line == 96) {
        /* The DAC takes the data line on the falling clock edge. */
        if (vp.dac_selected && vp.dac_clock == 1 && level == 0) {
            vp.dac_word = (vp.dac_word << 1) | (uint32_t)(vp.dac_data & 1);
            vp.dac_bits++;
        }
        vp.dac_clock = level;
    }
}

/* A write of a level to an exported output line. -1 with errno as the kernel sets it. */
static int gpio_drive(int line, int level, int by_shell)
{
    struct gpio_line *g = line_at(line);
    if (g == NULL || !g->exported) {
        errno = ENOENT;
        return -1;
    }
    if (!g->output) {
        errno = EPERM;
        return -1;
    }
    g->level = level ? 1 : 0;
    log_level(line, g->level, by_shell);
    dac_observe(line, g->level);
    return 0;
}

static int gpio_read_level(struct gpio_line *g, int line)
{
    g->reads++;
    if (g->output)
        return g->level;
    if (g->queue_pos < g->queue_len)
        return g->queue[g->queue_pos++];
    if (g->pulse_high_us > 0)
        return (vp.now_us % 1000000) < g->pulse_high_us;
    (void)line;
    return g->level;
}

void vplat_gpio_provide(int line, int output, int level)
{
    LOCK();
    struct gpio_line *g = line_at(line);
    if (g) {
        g->exported = 1;
        g->output = output;
        g->level = level;
    }
    UNLOCK();
}

void vplat_gpio_set_input(int line, int level)
{
    LOCK();
    struct gpio_line *g = line_at(line);
    if (g)
        g->level = level;
    UNLOCK();
}

void vplat_gpio_queue_reads(int line, const int *levels, size_t count)
{
    LOCK();
    struct gpio_line *g = line_at(line);
    if (g) {
        if (count > 64)
            count = 64;
        memcpy(g->queue, levels, count * sizeof *levels);
        g->queue_len = count;
        g->queue_pos = 0;
    }
    UNLOCK();
}

void vplat_gpio_pulse(int line, int64_t high_us)
{
    LOCK();
    struct gpio_line *g = line_at(line);
    if (g)
        g->pulse_high_us = high_us;
    UNLOCK();
}

int vplat_gpio_level(int line)
{
    LOCK();
    struct gpio_line *g = line_at(line);
    int level = g && g->exported ? g->level : -1;
    UNLOCK();
    return level;
}

int vplat_gpio_exported(int line)
{
    LOCK();
    struct gpio_line *g = line_at(line);
    int e = g && g->exported;
    UNLOCK();
    return e;
}

const char *vplat_gpio_direction(int line)
{
    struct gpio_line *g = line_at(line);
    if (g == NULL || !g->exported)
        return "";
    return g->output ? "out" : "in";
}

const char *vplat_gpio_edge(int line)
{
    struct gpio_line *g = line_at(line);
    return g ? g->edge : "";
}

size_t vplat_gpio_reads(int line)
{
    struct gpio_line *g = line_at(line);
    return g ? g->reads : 0;
}

size_t vplat_level_count(void)
{
    return vp.nlevels;
}

const struct vplat_level *vplat_level_at(size_t i)
{
    return i < vp.nlevels ? &vp.levels[i] : NULL;
}

const char *vplat_gpio_last_write(int line, size_t *len)
{
    struct gpio_line *g = line_at(line);
    if (g == NULL) {
        *len = 0;
        return "";
    }
    *len = g->last_write_len;
    return g->last_write;
}

size_t vplat_dac_count(void)
{
    return vp.ndacs;
}

const struct vplat_dac_word *vplat_dac_at(size_t i)
{
    return i < vp.ndacs ? &vp.dacs[i] : NULL;
}

/* ------------------------------------------------------------------ descriptors */

static int vfd_new(int kind, int line)
{
    for (int i = 0; i < MAX_VFD; i++) {
        if (vp.vfds[i].kind == VFD_FREE) {
            vp.vfds[i] = (struct vfd){kind, line};
            return VFD_BASE + i;
        }
    }
    errno = EMFILE;
    return -1;
}

static struct vfd *vfd_get(int fd)
{
    if (fd < VFD_BASE || fd >= VFD_BASE + MAX_VFD)
        return NULL;
    struct vfd *v = &vp.vfds[fd - VFD_BASE];
    return v->kind == VFD_FREE ? NULL : v;
}

/* "/sys/class/gpio/gpioN/attr" → kind and line; 0 when the path is not one. */
static int parse_gpio_path(const char *path, int *line)
{
    const char *prefix = "/sys/class/gpio/gpio";
    size_t plen = strlen(prefix);
    if (strncmp(path, prefix, plen) != 0)
        return 0;
    char *end;
    long l = strtol(path + plen, &end, 10);
    if (end == path + plen || *end != '/')
        return 0;
    *line = (int)l;
    if (strcmp(end, "/value") == 0)
        return VFD_VALUE;
    if (strcmp(end, "/direction") == 0)
        return VFD_DIRECTION;
    if (strcmp(end, "/edge") == 0)
        return VFD_EDGE;
    return 0;
}

int plat_open(const char *path, int flags)
{
    LOCK();
    int fd;
    int line = 0;
    int kind;
    if (strcmp(path, "/sys/class/gpio/export") == 0) {
        fd = vfd_new(VFD_EXPORT, 0);
    } else if ((kind = parse_gpio_path(path, &line)) != 0) {
        struct gpio_line *g = line_at(line);
        if (g == NULL || !g->exported) {
            errno = ENOENT;
            fd = -1;
        } else {
            fd = vfd_new(kind, line);
        }
    } else if (strcmp(path, "/dev/spidev1.0") == 0) {
        if (!vp.spi_present || vp.spi_fail[VSPI_OPEN]) {
            errno = ENOENT;
            fd = -1;
        } else {
            fd = vfd_new(VFD_SPI, 0);
        }
    } else {
        char p[1024];
        map_path(path, p, sizeof p);
        fd = open(p, flags, 0666);
    }
    UNLOCK();
    return fd;
}

/* Text written to a sysfs attribute, without its terminating zero or newline. */
static void attr_text(const void *buf, size_t n, char *out, size_t outn)
{
    size_t len = n < outn - 1 ? n : outn - 1;
    memcpy(out, buf, len);
    out[len] = '\0';
    out[strcspn(out, "\n")] = '\0';
}

ssize_t plat_write(int fd, const void *buf, size_t count)
{
    LOCK();
    struct vfd *v = vfd_get(fd);
    ssize_t rc = (ssize_t)count;
    if (v == NULL) {
        UNLOCK();
        return write(fd, buf, count);
    }
    char text[64];
    attr_text(buf, count, text, sizeof text);
    struct gpio_line *g = line_at(v->line);
    switch (v->kind) {
    case VFD_EXPORT: {
        char *end;
        long l = strtol(text, &end, 10);
        struct gpio_line *e = line_at((int)l);
        if (end == text || *end != '\0' || e == NULL) {
            errno = EINVAL;
            rc = -1;
        } else if (e->exported) {
            errno = EBUSY;
            rc = -1;
        } else {
            e->exported = 1;
            e->output = 0;
            e->level = 0;
            e->edge[0] = '\0';
        }
        break;
    }
    case VFD_DIRECTION:
        if (strcmp(text, "in") == 0) {
            g->output = 0;
        } else if (strcmp(text, "out") == 0 || strcmp(text, "low") == 0) {
            g->output = 1;
            g->level = 0;
        } else if (strcmp(text, "high") == 0) {
            g->output = 1;
            g->level = 1;
        } else {
            errno = EINVAL;
            rc = -1;
        }
        break;
    case VFD_VALUE: {
        size_t keep = count < sizeof g->last_write ? count : sizeof g->last_write;
        memcpy(g->last_write, buf, keep);
        g->last_write_len = keep;
        char *end;
        long l = strtol(text, &end, 10);
        if (end == text) {
            errno = EINVAL;
            rc = -1;
        } else if (gpio_drive(v->line, l != 0, 0) != 0) {
            rc = -1;
        }
        break;
    }
    case VFD_EDGE:
        if (strcmp(text, "none") == 0 || strcmp(text, "rising") == 0 ||
            strcmp(text, "falling") == 0 || strcmp(text, "both") == 0) {
            snprintf(g->edge, sizeof g->edge, "%.15s", text);
        } else {
            errno = EINVAL;
            rc = -1;
        }
        break;
    default:
        errno = EINVAL;
        rc = -1;
    }
    UNLOCK();
    return rc;
}

ssize_t plat_read(int fd, void *buf, size_t count)
{
    LOCK();
    struct vfd *v = vfd_get(fd);
    if (v == NULL) {
        UNLOCK();
        return read(fd, buf, count);
    }
    char text[32] = "";
    struct gpio_line *g = line_at(v->line);
    switch (v->kind) {
    case VFD_VALUE:
        snprintf(text, sizeof text, "%d\n", gpio_read_level(g, v->line));
        break;
    case VFD_DIRECTION:
        snprintf(text, sizeof text, "%s\n", g->output ? "out" : "in");
        break;
    case VFD_EDGE:
        snprintf(text, sizeof text, "%s\n", g->edge[0] ? g->edge : "none");
        break;
    default:
        UNLOCK();
        errno = EINVAL;
        return -1;
    }
    size_t len = strlen(text);
    if (len > count)
        len = count;
    memcpy(buf, text, len);
    UNLOCK();
    return (ssize_t)len;
}

int plat_close(int fd)
{
    LOCK();
    struct vfd *v = vfd_get(fd);
    if (v == NULL) {
        UNLOCK();
        return close(fd);
    }
    v->kind = VFD_FREE;
    UNLOCK();
    return 0;
}

int vplat_spi_open_count(void)
{
    int c = 0;
    for (int i = 0; i < MAX_VFD; i++)
        c += vp.vfds[i].kind == VFD_SPI;
    return c;
}

/* ------------------------------------------------------------------ SPI */

void vplat_spi_present(int present)
{
    vp.spi_present = present;
}

void vplat_spi_fail(enum vplat_spi_op op)
{
    vp.spi_fail[op] = 1;
}

void vplat_spi_set_reply(const uint8_t *reply, size_t len)
{
    memset(vp.spi_reply, 0, sizeof vp.spi_reply);
    memcpy(vp.spi_reply, reply, len < sizeof vp.spi_reply ? len : sizeof vp.spi_reply);
}

int vplat_spi_exchanges(void)
{
    return vp.spi_exchanges;
}

const struct vplat_spi_record *vplat_spi_last(void)
{
    return &vp.spi_last;
}

int plat_ioctl(int fd, unsigned long request, void *arg)
{
    LOCK();
    struct vfd *v = vfd_get(fd);
    int rc = -1;
    if (v == NULL || v->kind != VFD_SPI) {
        errno = ENOTTY;
        UNLOCK();
        return -1;
    }
    errno = EIO;
    if (request == SPI_IOC_WR_MODE) {
        if (!vp.spi_fail[VSPI_WR_MODE]) {
            vp.spi_mode = *(uint8_t *)arg;
            vp.spi_last.mode_written = vp.spi_mode;
            rc = 0;
        }
    } else if (request == SPI_IOC_RD_MODE) {
        if (!vp.spi_fail[VSPI_RD_MODE]) {
            *(uint8_t *)arg = vp.spi_mode;
            rc = 0;
        }
    } else if (request == SPI_IOC_WR_BITS_PER_WORD) {
        if (!vp.spi_fail[VSPI_WR_BITS]) {
            vp.spi_bits = *(uint8_t *)arg;
            vp.spi_last.bits_written = vp.spi_bits;
            rc = 0;
        }
    } else if (request == SPI_IOC_RD_BITS_PER_WORD) {
        if (!vp.spi_fail[VSPI_RD_BITS]) {
            *(uint8_t *)arg = vp.spi_bits;
            rc = 0;
        }
    } else if (request == SPI_IOC_MESSAGE(1)) {
        struct spi_ioc_transfer *tr = arg;
        if (vp.spi_fail[VSPI_MESSAGE]) {
            rc = 0;
        } else {
            struct vplat_spi_record *r = &vp.spi_last;
            r->len = tr->len;
            r->speed_hz = tr->speed_hz;
            r->delay_usecs = tr->delay_usecs;
            r->bits_per_word = tr->bits_per_word;
            r->cs_change = tr->cs_change;
            r->tx_nbits = tr->tx_nbits;
            r->rx_nbits = tr->rx_nbits;
            r->word_delay_usecs = tr->word_delay_usecs;
            r->pad = tr->pad;
            const uint8_t *tx = (const uint8_t *)(uintptr_t)tr->tx_buf;
            uint8_t *rx = (uint8_t *)(uintptr_t)tr->rx_buf;
            r->tx_head[0] = tr->len > 0 ? tx[0] : 0;
            r->tx_head[1] = tr->len > 1 ? tx[1] : 0;
            r->tx_rest_zero = 1;
            for (uint32_t i = 2; i < tr->len; i++)
                if (tx[i] != 0)
                    r->tx_rest_zero = 0;
            size_t copy = tr->len < SPI_FRAME ? tr->len : SPI_FRAME;
            memcpy(rx, vp.spi_reply, copy);
            vp.spi_exchanges++;
            rc = (int)tr->len;
        }
    } else {
        errno = ENOTTY;
    }
    UNLOCK();
    return rc;
}

/* ------------------------------------------------------------------ memory, threads, locks */

void vplat_fail_alloc(int count)
{
    vp.alloc_fail_in = count;
}

void *plat_malloc(size_t size)
{
    LOCK();
    int fail = 0;
    if (vp.alloc_fail_in > 0 && --vp.alloc_fail_in == 0)
        fail = 1;
    UNLOCK();
    return fail ? NULL : malloc(size);
}

void plat_free(void *p)
{
    free(p);
}

int plat_thread_start(pthread_t *handle, void *(*entry)(void *))
{
    const struct vplat_sched_hooks *s = vp.sched;
    if (s && s->thread_start)
        return s->thread_start(handle, entry);
    LOCK();
    if (vp.nthreads < 8)
        vp.threads[vp.nthreads++] = entry;
    UNLOCK();
    return 0;
}

size_t vplat_thread_count(void)
{
    return vp.nthreads;
}

void *(*vplat_thread_entry(size_t i))(void *)
{
    return i < vp.nthreads ? vp.threads[i] : NULL;
}

void plat_block_forever(void)
{
    const struct vplat_sched_hooks *s = vp.sched;
    if (s && s->block_forever)
        s->block_forever();
}

void plat_mutex_lock(pthread_mutex_t *m)
{
    const struct vplat_sched_hooks *s = vp.sched;
    if (s && s->mutex_lock)
        s->mutex_lock(m);
    else
        pthread_mutex_lock(m);
}

void plat_mutex_unlock(pthread_mutex_t *m)
{
    pthread_mutex_unlock(m);
}

/* ------------------------------------------------------------------ time */

time_t plat_time(void)
{
    return (time_t)(vplat_now_us() / 1000000);
}

struct tm *plat_localtime(time_t t, struct tm *out)
{
    /* The board model keeps local time equal to UTC. */
    return gmtime_r(&t, out);
}

void plat_sleep(unsigned seconds)
{
    pass_time((int64_t)seconds * 1000000);
}

void plat_usleep(unsigned microseconds)
{
    pass_time((int64_t)microseconds);
}

/* ------------------------------------------------------------------ files */

FILE *plat_fopen(const char *path, const char *mode)
{
    char p[1024];
    LOCK();
    map_path(path, p, sizeof p);
    UNLOCK();
    return fopen(p, mode);
}

/* ------------------------------------------------------------------ command log and rules */

static void log_cmd(const char *cmd, const char *mode)
{
    if (vp.ncmds == vp.capcmds) {
        vp.capcmds = vp.capcmds ? vp.capcmds * 2 : 256;
        vp.cmds = xrealloc(vp.cmds, vp.capcmds * sizeof *vp.cmds);
    }
    struct cmd_entry *e = &vp.cmds[vp.ncmds++];
    e->cmd = xstrdup(cmd);
    snprintf(e->mode, sizeof e->mode, "%s", mode);
    e->t_us = vp.now_us;
}

static void add_rule(const char *cmd, const char *output, int kind, int once)
{
    LOCK();
    if (vp.nrules == vp.caprules) {
        vp.caprules = vp.caprules ? vp.caprules * 2 : 32;
        vp.rules = xrealloc(vp.rules, vp.caprules * sizeof *vp.rules);
    }
    vp.rules[vp.nrules++] =
        (struct rule){xstrdup(cmd), xstrdup(output ? output : ""), kind, once, 0};
    UNLOCK();
}

void vplat_on_command(const char *cmd, const char *output)
{
    add_rule(cmd, output, VRULE_OUTPUT, 0);
}

void vplat_on_command_once(const char *cmd, const char *output)
{
    add_rule(cmd, output, VRULE_OUTPUT, 1);
}

void vplat_fail_command(const char *cmd)
{
    add_rule(cmd, NULL, VRULE_FAIL_START, 0);
}

void vplat_tool_absent(const char *tool, int absent)
{
    LOCK();
    int i;
    for (i = 0; i < vp.nabsent; i++)
        if (strcmp(vp.absent[i], tool) == 0)
            break;
    if (absent && i == vp.nabsent && vp.nabsent < 8)
        snprintf(vp.absent[vp.nabsent++], sizeof vp.absent[0], "%s", tool);
    if (!absent && i < vp.nabsent) {
        memmove(vp.absent[i], vp.absent[i + 1], (size_t)(vp.nabsent - i - 1) * sizeof vp.absent[0]);
        vp.nabsent--;
    }
    UNLOCK();
}

/* The rule that answers cmd: the first unused queued one, else the last standing one. */
static struct rule *find_rule(const char *cmd)
{
    for (size_t i = 0; i < vp.nrules; i++)
        if (vp.rules[i].once && !vp.rules[i].used && strcmp(vp.rules[i].cmd, cmd) == 0)
            return &vp.rules[i];
    for (size_t i = vp.nrules; i-- > 0;)
        if (!vp.rules[i].once && strcmp(vp.rules[i].cmd, cmd) == 0)
            return &vp.rules[i];
    return NULL;
}

size_t vplat_cmd_count(void)
{
    return vp.ncmds;
}

const char *vplat_cmd(size_t i)
{
    return i < vp.ncmds ? vp.cmds[i].cmd : NULL;
}

const char *vplat_cmd_mode(size_t i)
{
    return i < vp.ncmds ? vp.cmds[i].mode : NULL;
}

int64_t vplat_cmd_time_us(size_t i)
{
    return i < vp.ncmds ? vp.cmds[i].t_us : -1;
}

long vplat_cmd_find(const char *cmd, size_t from)
{
    for (size_t i = from; i < vp.ncmds; i++)
        if (strcmp(vp.cmds[i].cmd, cmd) == 0)
            return (long)i;
    return -1;
}

size_t vplat_cmd_occurrences(const char *cmd)
{
    size_t c = 0;
    for (size_t i = 0; i < vp.ncmds; i++)
        c += strcmp(vp.cmds[i].cmd, cmd) == 0;
    return c;
}

void vplat_cmd_clear(void)
{
    LOCK();
    for (size_t i = 0; i < vp.ncmds; i++)
        free(vp.cmds[i].cmd);
    vp.ncmds = 0;
    UNLOCK();
}

/* ------------------------------------------------------------------ FPGA register model */

void vplat_reg_set(int reg, uint64_t value)
{
    LOCK();
    if (reg >= 0 && reg < 64)
        vp.regs[reg] = value;
    UNLOCK();
}

uint64_t vplat_reg_get(int reg)
{
    LOCK();
    uint64_t v = reg >= 0 && reg < 64 ? vp.regs[reg] : 0;
    UNLOCK();
    return v;
}

void vplat_fpga_configured(int configured)
{
    vp.configured = configured;
}

void vplat_regtool_fault(int fault)
{
    vp.regtool_fault = fault;
}

int vplat_fpga_is_configured(void)
{
    return vp.configured;
}

void vplat_set_reg_hooks(vplat_reg_read_hook on_read, vplat_reg_write_hook on_write, void *ctx)
{
    LOCK();
    vp.on_read = on_read;
    vp.on_write = on_write;
    vp.reg_ctx = ctx;
    UNLOCK();
}

int vplat_loader_runs(void)
{
    return vp.loader_runs;
}

/* Splits a command line into blank-separated words (in place). */
static int split_words(char *s, char **words, int max)
{
    int count = 0;
    char *save = NULL;
    for (char *w = strtok_r(s, " \t\n", &save); w && count < max;
         w = strtok_r(NULL, " \t\n", &save))
        words[count++] = w;
    return count;
}

/* spiWrite -m M -l L -d D REG [BYTES...]: five lines, the fifth the bytes received. */
static void tool_spiwrite(char **w, int nw, const char *cmd, struct text *out)
{
    int m = -1, l = -1, d = -1, i = 1;
    while (i + 1 < nw && w[i][0] == '-') {
        int v = atoi(w[i + 1]);
        if (strcmp(w[i], "-m") == 0)
            m = v;
        else if (strcmp(w[i], "-l") == 0)
            l = v;
        else if (strcmp(w[i], "-d") == 0)
            d = v;
        i += 2;
    }
    if (i >= nw || m < 0 || d < 0 || d > 8) {
        text_add(out, "usage: spiWrite -m mode -l length -d count register [bytes]\n");
        return;
    }
    int reg = atoi(w[i++]);
    if (reg < 0 || reg >= 64)
        reg = 0;
    if (vp.regtool_fault == 1) {
        text_add(out, "\x01\x7f garbage %d\n###\n\n\xff\xfe\n", reg);
        text_add(out, "AA AA ZZ \x80\x81 ?? xyz\n");
        return;
    }
    if (vp.regtool_fault == 2) {
        text_add(out, "spiWrite: mode %d length %d data %d\nregister %d\n", m, l, d, reg);
        return;
    }
    text_add(out, "spiWrite: mode %d length %d data %d\n", m, l, d);
    text_add(out, "register %d\n", reg);
    text_add(out, "tx:");
    for (int k = 1; k < nw; k++)
        if (k >= i - 1)
            text_add(out, " %s", w[k]);
    text_add(out, "\n");
    text_add(out, "transfer complete\n");
    if (m == 0) {
        if (vp.on_read) {
            vplat_reg_read_hook hook = vp.on_read;
            void *ctx = vp.reg_ctx;
            UNLOCK();
            hook(reg, ctx);
            LOCK();
        }
        if (!vp.configured) {
            text_add(out, "FF FF");
            for (int k = 0; k < d; k++)
                text_add(out, " FF");
            text_add(out, "\n");
            return;
        }
        text_add(out, "AA AA");
        for (int k = 0; k < d; k++)
            text_add(out, " %02X", (unsigned)((vp.regs[reg] >> (8 * k)) & 0xFF));
        text_add(out, "\n");
        return;
    }
    uint64_t value = 0;
    for (int k = 0; k < d && i + k < nw; k++)
        value |= (uint64_t)(strtoull(w[i + k], NULL, 10) & 0xFF) << (8 * k);
    vp.regs[reg] = value;
    if (vp.on_write) {
        vplat_reg_write_hook hook = vp.on_write;
        void *ctx = vp.reg_ctx;
        UNLOCK();
        hook(reg, value, d, cmd, ctx);
        LOCK();
    }
    text_add(out, vp.configured ? "AA AA" : "FF FF");
    for (int k = 0; k < d; k++)
        text_add(out, vp.configured ? " A5" : " FF");
    text_add(out, "\n");
}

/* ------------------------------------------------------------------ ntpd and the kernel clock */

void vplat_set_peer(enum vplat_peer peer)
{
    vp.peer = peer;
}

void vplat_set_rmc_status(char status)
{
    vp.rmc = status;
}

void vplat_set_tai(int tai)
{
    vp.tai = tai;
}

const char *vplat_eth0_address(void)
{
    return vp.eth0;
}

int vplat_ramdisk_mounted(void)
{
    return vp.mounted;
}

static const char *const WEEKDAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
static const char *const MONTHS[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

void vplat_format_ntptime(int64_t unix_us, int tai, char *out, size_t n)
{
    time_t secs = (time_t)(unix_us / 1000000);
    unsigned usec = (unsigned)(unix_us % 1000000);
    struct tm t;
    gmtime_r(&secs, &t);
    uint32_t ntp_secs = (uint32_t)((int64_t)secs + 2208988800LL);
    /* Microsecond mode: the fraction is rounded to whole microseconds, so its
     * last three hex digits print as 000 (tool-formats.md). */
    uint32_t frac = (uint32_t)(((uint64_t)usec << 32) / 1000000u) & 0xFFFFF000u;
    snprintf(out, n,
             "ntp_gettime() returns code 0 (OK)\n"
             "  time %08lx.%08lx  %s, %s %2d %4d %2d:%02d:%02d.%03u, (.%06u),\n"
             "  maximum error 16000 us, estimated error 16 us, TAI offset %d\n"
             "ntp_adjtime() returns code 0 (OK)\n"
             "  modes 0x0 (),\n"
             "  offset 0.000 us, frequency 0.000 ppm, interval 1 s,\n"
             "  maximum error 16000 us, estimated error 16 us,\n"
             "  status 0x1 (PLL),\n"
             "  time constant 2, precision 1.000 us, tolerance 500 ppm,\n",
             (unsigned long)ntp_secs, (unsigned long)frac, WEEKDAYS[t.tm_wday], MONTHS[t.tm_mon],
             t.tm_mday, t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec, usec / 1000, usec, tai);
}

void vplat_format_clockvar(int64_t unix_us, char status, char *out, size_t n)
{
    time_t secs = (time_t)(unix_us / 1000000);
    struct tm t;
    gmtime_r(&secs, &t);
    char body[160];
    if (status == 'A')
        snprintf(body, sizeof body,
                 "GPRMC,%02d%02d%02d.00,A,5540.1234,N,03736.5678,E,0.00,0.00,%02d%02d%02d,,,A",
                 t.tm_hour, t.tm_min, t.tm_sec, t.tm_mday, t.tm_mon + 1, t.tm_year % 100);
    else
        snprintf(body, sizeof body, "GPRMC,%02d%02d%02d.00,%c,,,,,,,%02d%02d%02d,,,N", t.tm_hour,
                 t.tm_min, t.tm_sec, status, t.tm_mday, t.tm_mon + 1, t.tm_year % 100);
    unsigned sum = 0;
    for (const char *p = body; *p; p++)
        sum ^= (unsigned char)*p;
    snprintf(out, n,
             "associd=0 status=0000 no events, clk_unspec,\n"
             "device=\"NMEA GPS Clock\",\n"
             "timecode=\"$%s*%02X\",\n"
             "poll=3418, noreply=0, badformat=0, baddata=0,\n"
             "stratum=0, refid=GPS, flags=5\n",
             body, sum);
}

static void ntpq_peers(struct text *out)
{
    text_add(out,
             "     remote           refid      st t when poll reach   delay   offset  jitter\n");
    text_add(out,
             "==============================================================================\n");
    const char *gps =
        " GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   0.003\n";
    if (vp.peer == VPEER_SYSTEM || vp.peer == VPEER_BOTH)
        gps = "*GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   0.003\n";
    else if (vp.peer == VPEER_PPS)
        gps = "oGPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000    0.000   0.004\n";
    text_add(out, "%s", gps);
    if (vp.peer == VPEER_BOTH)
        text_add(
            out,
            "oGPS_NMEA(1)     .PPS.            0 l    -    8  377    0.000    0.000   0.004\n");
    text_add(out,
             "+darwin.kenyonra 127.67.113.92    2 u   50   64  377   28.478    4.232   0.953\n");
}

/* ------------------------------------------------------------------ shell utilities on the tree */

static void copy_host_file(const char *from, const char *to)
{
    size_t len = 0;
    char *data = read_host_file(from, &len);
    if (data == NULL)
        return;
    FILE *f = fopen(to, "w");
    if (f) {
        fwrite(data, 1, len, f);
        fclose(f);
    }
    free(data);
}

static void tool_tail_last_line(const char *board_path, struct text *out)
{
    char p[1024];
    map_path(board_path, p, sizeof p);
    size_t len = 0;
    char *data = read_host_file(p, &len);
    if (data == NULL || len == 0) {
        free(data);
        return;
    }
    size_t end = len;
    if (data[end - 1] == '\n')
        end--;
    size_t start = end;
    while (start > 0 && data[start - 1] != '\n')
        start--;
    text_add(out, "%.*s\n", (int)(end - start), data + start);
    free(data);
}

/* "echo L > /sys/class/gpio/gpioN/value", or echo into a plain file. */
static void tool_echo(const char *cmd)
{
    const char *gt = strchr(cmd, '>');
    if (gt == NULL)
        return;
    char value[64];
    size_t vlen = (size_t)(gt - (cmd + 5));
    if (vlen >= sizeof value)
        vlen = sizeof value - 1;
    memcpy(value, cmd + 5, vlen);
    value[vlen] = '\0';
    while (vlen > 0 && value[vlen - 1] == ' ')
        value[--vlen] = '\0';
    const char *target = gt + 1;
    while (*target == ' ')
        target++;
    int line;
    if (parse_gpio_path(target, &line) == VFD_VALUE) {
        gpio_drive(line, atoi(value) != 0, 1);
        return;
    }
    char p[1024];
    map_path(target, p, sizeof p);
    FILE *f = fopen(p, "w");
    if (f) {
        fprintf(f, "%s\n", value);
        fclose(f);
    }
}

static int is_absent(const char *program)
{
    const char *base = strrchr(program, '/');
    base = base ? base + 1 : program;
    for (int i = 0; i < vp.nabsent; i++)
        if (strcmp(vp.absent[i], base) == 0)
            return 1;
    return 0;
}

/* One simple command (no ';'): its effect on the model and its output. */
static void run_simple(const char *cmd, struct text *out)
{
    char copy[1024];
    snprintf(copy, sizeof copy, "%s", cmd);
    char *words[32];
    int nw = split_words(copy, words, 32);
    if (nw == 0)
        return;
    const char *prog = words[0];
    if (is_absent(prog))
        return;
    char p1[1024], p2[1024];

    if (strcmp(prog, "./spiWrite") == 0 || strcmp(prog, WORKDIR "/spiWrite") == 0) {
        tool_spiwrite(words, nw, cmd, out);
    } else if (strcmp(prog, "./wrFPGA") == 0) {
        vp.loader_runs++;
        if (nw >= 3) {
            char p[1024];
            struct stat st;
            map_path(words[2], p, sizeof p);
            if (stat(p, &st) == 0)
                vp.configured = 1;
        }
        text_add(out, "wrFPGA: loaded %s\n", nw >= 3 ? words[2] : "");
    } else if (strcmp(prog, "ntptime") == 0) {
        char buf[1024];
        vplat_format_ntptime(vp.now_us, vp.tai, buf, sizeof buf);
        text_add(out, "%s", buf);
    } else if (strcmp(prog, "ntpq") == 0) {
        if (nw >= 3 && strcmp(words[1], "-c") == 0 && strcmp(words[2], "clockvar") == 0) {
            char buf[1024];
            vplat_format_clockvar(vp.now_us, vp.rmc, buf, sizeof buf);
            text_add(out, "%s", buf);
        } else if (nw >= 2 && strcmp(words[1], "-p") == 0) {
            struct text all = {0};
            ntpq_peers(&all);
            const char *pattern = NULL;
            if (strstr(cmd, "grep '*G'"))
                pattern = "*G";
            else if (strstr(cmd, "grep 'oG'"))
                pattern = "oG";
            char *save = NULL;
            for (char *ln = strtok_r(all.s, "\n", &save); ln; ln = strtok_r(NULL, "\n", &save))
                if (pattern == NULL || strstr(ln, pattern))
                    text_add(out, "%s\n", ln);
            free(all.s);
        }
    } else if (strcmp(prog, "echo") == 0) {
        tool_echo(cmd);
    } else if (strcmp(prog, "rm") == 0) {
        for (int i = 1; i < nw; i++) {
            if (words[i][0] == '-')
                continue;
            map_path(words[i], p1, sizeof p1);
            unlink(p1);
        }
    } else if (strcmp(prog, "touch") == 0) {
        for (int i = 1; i < nw; i++) {
            map_path(words[i], p1, sizeof p1);
            int fd = open(p1, O_WRONLY | O_CREAT, 0666);
            if (fd >= 0)
                close(fd);
        }
    } else if (strcmp(prog, "mkdir") == 0) {
        int parents = 0;
        for (int i = 1; i < nw; i++) {
            if (strcmp(words[i], "-p") == 0) {
                parents = 1;
                continue;
            }
            map_path(words[i], p1, sizeof p1);
            if (parents)
                mkdirs(p1);
            else
                mkdir(p1, 0755);
        }
    } else if (strcmp(prog, "mv") == 0) {
        int i = 1;
        while (i < nw && words[i][0] == '-')
            i++;
        if (i + 1 < nw) {
            map_path(words[i], p1, sizeof p1);
            map_path(words[i + 1], p2, sizeof p2);
            rename(p1, p2);
        }
    } else if (strcmp(prog, "cp") == 0) {
        if (nw >= 3) {
            map_path(words[1], p1, sizeof p1);
            map_path(words[2], p2, sizeof p2);
            copy_host_file(p1, p2);
        }
    } else if (strcmp(prog, "tail") == 0) {
        if (nw >= 4 && strcmp(words[1], "-n") == 0 && strcmp(words[2], "1") == 0)
            tool_tail_last_line(words[3], out);
    } else if (strcmp(prog, "df") == 0) {
        if (vp.mounted && strstr(cmd, "grep ramcache"))
            text_add(out, "/dev/ram1                 7.7M     14.0K      7.3M   0%% /ramcache\n");
    } else if (strcmp(prog, "mount") == 0) {
        if (nw >= 3 && strcmp(words[1], "/dev/ram1") == 0 && strcmp(words[2], "/ramcache") == 0) {
            map_path("/ramcache", p1, sizeof p1);
            mkdirs(p1);
            vp.mounted = 1;
        }
    } else if (strcmp(prog, "ifconfig") == 0) {
        if (nw >= 5 && strcmp(words[1], "eth0") == 0 && strcmp(words[3], "netmask") == 0) {
            int bitsset = 0;
            unsigned a, b, c, d;
            if (sscanf(words[4], "%u.%u.%u.%u", &a, &b, &c, &d) == 4) {
                uint32_t mask = (a << 24) | (b << 16) | (c << 8) | d;
                while (mask & 0x80000000u) {
                    bitsset++;
                    mask <<= 1;
                }
            }
            snprintf(vp.eth0, sizeof vp.eth0, "%s/%d", words[2], bitsset);
        }
    }
    /* mkfs, agetty, mversion, adjtimex, cd and anything unknown: recorded only. */
}

static void run_line(const char *cmd, struct text *out)
{
    char copy[1024];
    snprintf(copy, sizeof copy, "%s", cmd);
    size_t len = strlen(copy);
    while (len > 0 && (copy[len - 1] == '\n' || copy[len - 1] == ' ' || copy[len - 1] == '&'))
        copy[--len] = '\0';
    /* A pipeline into grep is one command for the models (ntpq -p | grep, df -h | grep). */
    char *save = NULL;
    for (char *part = strtok_r(copy, ";", &save); part; part = strtok_r(NULL, ";", &save)) {
        while (*part == ' ')
            part++;
        run_simple(part, out);
    }
}

static FILE *stream_open(char *buf, size_t len, const char *mode)
{
    for (int i = 0; i < MAX_VFD; i++) {
        if (vp.streams[i].f == NULL) {
            FILE *f = fmemopen(buf, len, mode);
            if (f == NULL)
                return NULL;
            vp.streams[i] = (struct stream){f, buf};
            return f;
        }
    }
    return NULL;
}

FILE *plat_popen(const char *cmd, const char *mode)
{
    LOCK();
    int64_t cost = vp.command_cost_us;
    UNLOCK();
    if (cost > 0)
        pass_time(cost);
    LOCK();
    log_cmd(cmd, mode);
    struct text out = {0};
    text_add(&out, "%s", "");
    struct rule *r = find_rule(cmd);
    if (r) {
        if (r->once)
            r->used = 1;
        if (r->kind == VRULE_FAIL_START) {
            free(out.s);
            UNLOCK();
            errno = ENOENT;
            return NULL;
        }
        text_add(&out, "%s", r->output);
    } else {
        run_line(cmd, &out);
    }
    FILE *f;
    if (mode[0] == 'w') {
        /* Output of a mode "w" command is not captured; the pipe takes the
         * daemon's writes, of which there are none. */
        free(out.s);
        char *sink = xrealloc(NULL, 256);
        f = stream_open(sink, 256, "w");
        if (f == NULL)
            free(sink);
    } else {
        f = stream_open(out.s, out.len, "r");
        if (f == NULL)
            free(out.s);
    }
    UNLOCK();
    return f;
}

int plat_pclose(FILE *f)
{
    LOCK();
    for (int i = 0; i < MAX_VFD; i++) {
        if (vp.streams[i].f == f) {
            fclose(f);
            free(vp.streams[i].buf);
            vp.streams[i].f = NULL;
            vp.streams[i].buf = NULL;
            UNLOCK();
            return 0;
        }
    }
    UNLOCK();
    return -1;
}
