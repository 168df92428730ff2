/* Scenario test support (see scenario_support.h). */
#include "scenario_support.h"

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "simrun.h"

struct run r;

int scenario_group_setup(void **state)
{
    (void)state;
    run_scenario(&r, SCENARIO);
    return 0;
}

int scenario_group_teardown(void **state)
{
    (void)state;
    run_cleanup(&r);
    return 0;
}

void run_scenario(struct run *run, const char *scenario)
{
    const char *tmp = getenv("TMPDIR");
    snprintf(run->dir, sizeof run->dir, "%s/zarvent-scenario-XXXXXX", tmp && *tmp ? tmp : "/tmp");
    assert_non_null(mkdtemp(run->dir));
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    assert_true(pid >= 0);
    if (pid == 0) {
        struct sim_options o = {0};
        o.scenario_text = scenario;
        o.out_dir = run->dir;
        int rc = sim_run(&o);
        fflush(stdout);
        fflush(stderr);
        _exit(rc == 0 ? 0 : 3);
    }
    int status = 0;
    assert_int_equal(waitpid(pid, &status, 0), pid);
    if (!WIFEXITED(status))
        fail_msg("simulator ended by signal %d", WIFSIGNALED(status) ? WTERMSIG(status) : -1);
    assert_int_equal(WEXITSTATUS(status), 0);
}

static char *slurp(const char *path)
{
    FILE *f = fopen(path, "r");
    if (f == NULL)
        return NULL;
    size_t cap = 65536, len = 0, got;
    char *s = malloc(cap);
    assert_non_null(s);
    while ((got = fread(s + len, 1, cap - len - 1, f)) > 0) {
        len += got;
        if (len + 1 == cap) {
            cap *= 2;
            s = realloc(s, cap);
            assert_non_null(s);
        }
    }
    s[len] = '\0';
    fclose(f);
    return s;
}

char *run_log(struct run *run, const char *name)
{
    char p[512];
    snprintf(p, sizeof p, "%s/logs/%s", run->dir, name);
    char *s = slurp(p);
    if (s == NULL)
        fail_msg("log %s missing", name);
    return s;
}

char *run_board_file(struct run *run, const char *board_path)
{
    char p[1024];
    snprintf(p, sizeof p, "%s/board%s", run->dir, board_path);
    return slurp(p);
}

int run_board_exists(struct run *run, const char *board_path)
{
    char p[1024];
    struct stat st;
    snprintf(p, sizeof p, "%s/board%s", run->dir, board_path);
    return stat(p, &st) == 0;
}

int count_lines(const char *text, const char *needle)
{
    int c = 0;
    const char *line = text;
    while (line && *line) {
        const char *end = strchr(line, '\n');
        size_t len = end ? (size_t)(end - line) : strlen(line);
        char buf[1024];
        if (len >= sizeof buf)
            len = sizeof buf - 1;
        memcpy(buf, line, len);
        buf[len] = '\0';
        if (strstr(buf, needle))
            c++;
        line = end ? end + 1 : NULL;
    }
    return c;
}

long run_summary(struct run *run, const char *key)
{
    char *s = run_log(run, "summary.log");
    char pattern[128];
    snprintf(pattern, sizeof pattern, "%s ", key);
    char *at = strstr(s, pattern);
    if (at == NULL)
        fail_msg("summary has no %s", key);
    long v = strtol(at + strlen(pattern), NULL, 10);
    free(s);
    return v;
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

void run_cleanup(struct run *run)
{
    if (run->dir[0] && getenv("ZARVENT_KEEP_SCENARIOS") == NULL)
        nftw(run->dir, rm_entry, 16, FTW_DEPTH | FTW_PHYS);
}
