/* Board model of the simulator (see board.h). */
#include "board.h"

#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "vplat.h"

/* A counter value served for register 24 or 26 (the test's independent sums). */
struct counter_reading {
    int64_t t_s;
    int reg;
    uint32_t value;
};

struct handover_record {
    int64_t t_us;
    int number;
    uint64_t count;
    uint64_t expected;
    int accepted;
};

static struct {
    struct board_config cfg;
    uint32_t rng;
    double offset;       /* ns, the model's true offset */
    int64_t offset_t_us; /* time of the last integration */
    int code;            /* DAC code in force */
    size_t dac_seen;
    int reg_garbage, reg_short;
    int open_number; /* number written to register 10, -1 when none */
    uint64_t pending_count;
    int have_count;
    uint8_t events; /* register 28 flags pending */
    struct board_stats st;
    struct handover_record *handovers;
    size_t nhandovers, caphandovers;
    int64_t resp_override; /* -1: from the load; else a fixed reading */
    struct counter_reading *readings;
    size_t nreadings, capreadings;
} b;

static uint32_t rng_next(void)
{
    /* xorshift32: deterministic for a given seed on every architecture */
    uint32_t x = b.rng;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b.rng = x;
    return x;
}

static double rng_uniform(void)
{
    return (rng_next() >> 8) * (1.0 / 16777216.0);
}

static double rng_gauss(void)
{
    /* sum of 12 uniforms: good enough, deterministic, no libm subtleties */
    double s = 0;
    for (int i = 0; i < 12; i++)
        s += rng_uniform();
    return s - 6.0;
}

void board_default_config(struct board_config *c)
{
    c->seed = 1;
    c->gain = 0.012;
    c->natural_code = 33000;
    c->noise_ns = 2.0;
    c->initial_offset = 2500.0;
    c->pulse_high_us = 100000;
    c->requests = 40;
    c->responses = 40;
}

/* Takes in the DAC words sent since the last look: command 3 sets the code. */
static void take_dac_words(void)
{
    size_t count = vplat_dac_count();
    for (; b.dac_seen < count; b.dac_seen++) {
        const struct vplat_dac_word *w = vplat_dac_at(b.dac_seen);
        b.st.dac_words++;
        if (w->malformed) {
            b.st.dac_malformed++;
            continue;
        }
        if ((w->word >> 20) == 3) {
            b.code = (int)((w->word >> 4) & 0xFFFF);
            b.st.last_dac_code = b.code;
        }
    }
}

/* Integrates the offset up to now: a higher code makes it fall. */
static void integrate(void)
{
    take_dac_words();
    int64_t t = vplat_now_us();
    if (t > b.offset_t_us) {
        double dt = (double)(t - b.offset_t_us) / 1e6;
        b.offset -= b.cfg.gain * (double)(b.code - b.cfg.natural_code) * dt;
        b.offset_t_us = t;
    }
    b.st.offset_ns = b.offset;
}

/* Register 14: the phase of the last pulse in 10 ns ticks, as Part 3.6 reads it. */
static uint32_t phase_ticks(void)
{
    double measured = b.offset + b.cfg.noise_ns * rng_gauss();
    double ns = fmod(-measured, 1e9);
    if (ns < 0)
        ns += 1e9;
    return (uint32_t)(ns / 10.0);
}

static void record_reading(int reg, uint32_t value)
{
    /* Several reads in one second (the capture step reads the counters too)
     * serve the same value; only the first is recorded. */
    int64_t t = vplat_now_us() / 1000000;
    for (size_t i = b.nreadings; i-- > 0 && b.readings[i].t_s == t;)
        if (b.readings[i].reg == reg)
            return;
    if (b.nreadings == b.capreadings) {
        b.capreadings = b.capreadings ? b.capreadings * 2 : 4096;
        b.readings = realloc(b.readings, b.capreadings * sizeof *b.readings);
        if (b.readings == NULL)
            abort();
    }
    b.readings[b.nreadings++] = (struct counter_reading){t, reg, value};
}

/* Value of a counter for the current second: drawn once per second. */
static uint32_t counter_value(int reg, int mean)
{
    int64_t t = vplat_now_us() / 1000000;
    for (size_t i = b.nreadings; i-- > 0 && b.readings[i].t_s == t;)
        if (b.readings[i].reg == reg)
            return b.readings[i].value;
    int v = mean + (int)(rng_next() % 5) - 2;
    uint32_t value = (uint32_t)(v < 0 ? 0 : v);
    if (reg == 26 && b.resp_override >= 0)
        value = (uint32_t)b.resp_override;
    record_reading(reg, value);
    return value;
}

static void on_read(int reg, void *ctx)
{
    (void)ctx;
    switch (reg) {
    case 14:
        integrate();
        vplat_reg_set(14, phase_ticks());
        break;
    case 24:
        vplat_reg_set(24, counter_value(24, b.cfg.requests));
        break;
    case 26:
        vplat_reg_set(26, counter_value(26, b.cfg.responses));
        break;
    case 28:
        vplat_reg_set(28, b.events);
        break;
    default:
        break;
    }
}

static void record_handover(int number, uint64_t count, uint64_t expected, int accepted)
{
    if (b.nhandovers == b.caphandovers) {
        b.caphandovers = b.caphandovers ? b.caphandovers * 2 : 256;
        b.handovers = realloc(b.handovers, b.caphandovers * sizeof *b.handovers);
        if (b.handovers == NULL)
            abort();
    }
    b.handovers[b.nhandovers++] =
        (struct handover_record){vplat_now_us(), number, count, expected, accepted};
}

static void on_write(int reg, uint64_t value, int nbytes, const char *cmd, void *ctx)
{
    (void)nbytes;
    (void)cmd;
    (void)ctx;
    switch (reg) {
    case 10:
        b.open_number = (int)value;
        b.have_count = 0;
        b.st.handovers_open++;
        break;
    case 3:
        b.pending_count = value;
        b.have_count = 1;
        break;
    case 11: {
        /* The count must be the seconds of the next pulse on the TAI scale:
         * Unix seconds + 1 + TAI-UTC (37). */
        uint64_t expected = (uint64_t)(vplat_now_us() / 1000000) + 1 + 37;
        int ok = b.open_number == (int)value && b.have_count && b.pending_count == expected;
        record_handover((int)value, b.pending_count, expected, ok);
        if (ok) {
            b.st.handovers_accepted++;
            b.st.last_accepted_us = vplat_now_us();
        } else {
            b.st.handovers_rejected++;
        }
        b.open_number = -1;
        b.have_count = 0;
        break;
    }
    case 2:
        /* Bits 1 and 2 acknowledge event flags 1 and 2 (Part 3.3). */
        if (value & 2) {
            b.events &= (uint8_t)~1u;
            b.st.event_acks[0]++;
        }
        if (value & 4) {
            b.events &= (uint8_t)~2u;
            b.st.event_acks[1]++;
        }
        break;
    default:
        break;
    }
}

void board_init(const struct board_config *c)
{
    memset(&b, 0, sizeof b);
    b.cfg = *c;
    b.rng = c->seed ? c->seed : 1;
    b.offset = c->initial_offset;
    b.offset_t_us = vplat_now_us();
    b.code = 32768;
    b.open_number = -1;
    b.resp_override = -1;
    vplat_set_reg_hooks(on_read, on_write, NULL);
    vplat_fpga_configured(0); /* answers once wrFPGA has loaded the bitstream */
    vplat_reg_set(2, 0x00);
    vplat_reg_set(48, 0x10);
    vplat_gpio_pulse(19, c->pulse_high_us);
    vplat_gpio_provide(19, 0, 0);
    vplat_gpio_pulse(19, c->pulse_high_us);
    /* Inputs the supervision set-up exports: their level when exported. */
    vplat_gpio_provide(79, 0, 1);
    vplat_gpio_provide(86, 0, 1);
    vplat_gpio_provide(87, 0, 1);
    vplat_gpio_provide(88, 0, 1);
    vplat_gpio_provide(85, 1, 1);
    vplat_gpio_provide(176, 0, 1);
    vplat_write_file("/usr/bin/Zarvent/dac_voltage", "33000\n");
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "0\n");
    vplat_write_file("/usr/bin/Zarvent/nmea_emul_flag.txt", "0\n");
    vplat_write_file("/usr/bin/Zarvent/defcnfg", "server 127.127.20.0 mode 1 prefer\n");
    vplat_write_file("/usr/bin/Zarvent/resolv.conf", "nameserver 192.168.2.1\n");
    vplat_write_file("/usr/bin/Zarvent/interfaces", "auto eth0\niface eth0 inet static\n");
    vplat_write_file("/etc/ntp.conf", "server 127.127.20.0 mode 17\n");
    vplat_write_file("/etc/resolv.conf", "nameserver 10.0.0.1\n");
    vplat_write_file("/etc/network/interfaces", "auto eth0\niface eth0 inet dhcp\n");
    vplat_write_file("/leap-seconds.list",
                     "#\tleap-seconds.list (abridged)\n#$\t3676924800\n"
                     "2272060800\t10\t# 1 Jan 1972\n3644697600\t36\t# 1 Jul 2015\n"
                     "3692217600\t37\t# 1 Jan 2017\n#@\t3928521600\n#h\t0 0 0 0 0\n");
    uint8_t reply[1410];
    for (size_t i = 0; i < sizeof reply; i++)
        reply[i] = (uint8_t)(rng_next() >> 24);
    vplat_spi_set_reply(reply, sizeof reply);
}

static int parse_int(const char *s, long *out)
{
    char *end;
    long v = strtol(s, &end, 0);
    if (end == s || *end)
        return -1;
    *out = v;
    return 0;
}

int board_command(char **w, int nw, char *error, size_t esz)
{
    long v;
    if (nw == 0)
        return 0;
    if (strcmp(w[0], "rmc") == 0 && nw == 2 && strlen(w[1]) == 1) {
        vplat_set_rmc_status(w[1][0]);
    } else if (strcmp(w[0], "peer") == 0 && nw == 2) {
        if (strcmp(w[1], "system") == 0)
            vplat_set_peer(VPEER_SYSTEM);
        else if (strcmp(w[1], "pps") == 0)
            vplat_set_peer(VPEER_PPS);
        else if (strcmp(w[1], "none") == 0)
            vplat_set_peer(VPEER_NONE);
        else if (strcmp(w[1], "both") == 0)
            vplat_set_peer(VPEER_BOTH);
        else
            goto bad;
    } else if (strcmp(w[0], "gpio") == 0 && nw == 3) {
        long line, level;
        if (parse_int(w[1], &line) || parse_int(w[2], &level))
            goto bad;
        vplat_gpio_set_input((int)line, (int)level);
    } else if (strcmp(w[0], "tool") == 0 && nw == 3) {
        vplat_tool_absent(w[1], strcmp(w[2], "absent") == 0);
    } else if (strcmp(w[0], "regtool") == 0 && nw == 2) {
        /* Register tool faults: every read of these registers prints garbage or too few lines. */
        b.reg_garbage = strcmp(w[1], "garbage") == 0;
        b.reg_short = strcmp(w[1], "short") == 0;
        if (!b.reg_garbage && !b.reg_short && strcmp(w[1], "ok") != 0)
            goto bad;
        vplat_regtool_fault(b.reg_garbage ? 1 : b.reg_short ? 2 : 0);
    } else if (strcmp(w[0], "file") == 0 && nw >= 2) {
        char text[512] = "";
        for (int i = 2; i < nw; i++) {
            strncat(text, w[i], sizeof text - strlen(text) - 2);
            if (i + 1 < nw)
                strncat(text, " ", sizeof text - strlen(text) - 1);
        }
        if (nw > 2)
            strncat(text, "\n", sizeof text - strlen(text) - 1);
        vplat_write_file(w[1], text);
    } else if (strcmp(w[0], "event") == 0 && nw == 2) {
        if (parse_int(w[1], &v) || v < 1 || v > 2)
            goto bad;
        b.events |= (uint8_t)(1u << (v - 1));
    } else if (strcmp(w[0], "load") == 0 && nw == 3) {
        long req, resp;
        if (parse_int(w[1], &req) || parse_int(w[2], &resp))
            goto bad;
        b.cfg.requests = (int)req;
        b.cfg.responses = (int)resp;
    } else if (strcmp(w[0], "responses") == 0 && nw == 2) {
        if (parse_int(w[1], &v))
            goto bad;
        b.resp_override = v;
    } else if (strcmp(w[0], "offset") == 0 && nw == 2) {
        integrate();
        b.offset = strtod(w[1], NULL);
    } else if (strcmp(w[0], "spi") == 0 && nw == 2 && strcmp(w[1], "absent") == 0) {
        vplat_spi_present(0);
    } else {
        goto bad;
    }
    return 0;
bad:
    snprintf(error, esz, "unknown or malformed command: %s%s", w[0], nw > 1 ? " ..." : "");
    return -1;
}

void board_stats(struct board_stats *s)
{
    integrate();
    *s = b.st;
}

static FILE *open_log(const char *dir, const char *name)
{
    char p[1024];
    snprintf(p, sizeof p, "%s/%s", dir, name);
    return fopen(p, "w");
}

int board_write_logs(const char *dir)
{
    mkdir(dir, 0755);
    FILE *f = open_log(dir, "commands.log");
    if (f == NULL)
        return -1;
    for (size_t i = 0; i < vplat_cmd_count(); i++) {
        int64_t t = vplat_cmd_time_us(i);
        fprintf(f, "%lld.%06lld %s %s\n", (long long)(t / 1000000), (long long)(t % 1000000),
                vplat_cmd_mode(i), vplat_cmd(i));
    }
    fclose(f);
    f = open_log(dir, "levels.log");
    if (f) {
        for (size_t i = 0; i < vplat_level_count(); i++) {
            const struct vplat_level *l = vplat_level_at(i);
            fprintf(f, "%lld.%06lld %d %d%s\n", (long long)(l->t_us / 1000000),
                    (long long)(l->t_us % 1000000), l->line, l->level, l->by_shell ? " shell" : "");
        }
        fclose(f);
    }
    f = open_log(dir, "dac.log");
    if (f) {
        for (size_t i = 0; i < vplat_dac_count(); i++) {
            const struct vplat_dac_word *d = vplat_dac_at(i);
            if (d->malformed)
                fprintf(f, "%lld malformed bits=%d\n", (long long)(d->t_us / 1000000), d->bits);
            else
                fprintf(f, "%lld %06X cmd=%u value=%u\n", (long long)(d->t_us / 1000000), d->word,
                        d->word >> 20, (d->word >> 4) & 0xFFFF);
        }
        fclose(f);
    }
    f = open_log(dir, "handover.log");
    if (f) {
        for (size_t i = 0; i < b.nhandovers; i++) {
            struct handover_record *h = &b.handovers[i];
            fprintf(f, "%lld number=%d count=%llu expected=%llu %s\n",
                    (long long)(h->t_us / 1000000), h->number, (unsigned long long)h->count,
                    (unsigned long long)h->expected, h->accepted ? "accepted" : "rejected");
        }
        fclose(f);
    }
    f = open_log(dir, "registers.log");
    if (f) {
        for (size_t i = 0; i < vplat_cmd_count(); i++) {
            const char *c = vplat_cmd(i);
            if (strstr(c, "spiWrite -m 1"))
                fprintf(f, "%lld %s\n", (long long)(vplat_cmd_time_us(i) / 1000000), c);
        }
        fclose(f);
    }
    f = open_log(dir, "counts.log");
    if (f) {
        for (size_t i = 0; i < b.nreadings; i++)
            fprintf(f, "%lld %d %u\n", (long long)b.readings[i].t_s, b.readings[i].reg,
                    b.readings[i].value);
        fclose(f);
    }
    struct board_stats s;
    board_stats(&s);
    f = open_log(dir, "summary.log");
    if (f) {
        fprintf(f,
                "handovers_open %d\nhandovers_accepted %d\nhandovers_rejected %d\n"
                "dac_words %d\ndac_malformed %d\nlast_dac_code %d\noffset_ns %.1f\n"
                "event_acks %d %d\n",
                s.handovers_open, s.handovers_accepted, s.handovers_rejected, s.dac_words,
                s.dac_malformed, s.last_dac_code, s.offset_ns, s.event_acks[0], s.event_acks[1]);
        fclose(f);
    }
    return 0;
}
