/* The command runner. */
#include "hardware/runner.h"

#include <string.h>

#include "platform/platform.h"

int run_command(const char *cmd, const char *mode)
{
    FILE *f = plat_popen(cmd, mode);
    if (f == NULL)
        return -1;
    plat_pclose(f);
    return 0;
}

int run_read_lines(const char *cmd, int calls, int need, char *buf, size_t bufsz)
{
    int got = 0;
    buf[0] = '\0';
    FILE *f = plat_popen(cmd, "r");
    if (f == NULL)
        return RUN_NOT_STARTED;
    for (int i = 0; i < calls; i++) {
        /* fgets leaves the buffer alone at the end of the output, so the
         * last line read stays in it (Part 2.2). */
        if (fgets(buf, (int)bufsz, f) == NULL)
            break;
        got++;
    }
    plat_pclose(f);
    if (got < need) {
        buf[0] = '\0';
        return RUN_SHORT;
    }
    return 0;
}

int run_has_output(const char *cmd)
{
    enum { QUERY_BUFFER = 1024 };
    FILE *f = plat_popen(cmd, "r");
    if (f == NULL)
        return 0; /* Part 5.1 "Left to the implementer": cannot start = absent */
    char *data = plat_malloc(QUERY_BUFFER);
    size_t got = 0;
    if (data != NULL) {
        got = fread(data, 1, QUERY_BUFFER, f);
        plat_free(data);
    }
    plat_pclose(f);
    return got > 0;
}
