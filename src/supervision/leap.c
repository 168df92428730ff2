/* Leap-second offset file (Part 5.5). */
#include "supervision/ThreadLED.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "hardware/runner.h"
#include "platform/platform.h"

enum { LINE_BUFFER = 256, READ_SIZE = 100, LINES_READ = 238, OFFSET_COLUMN = 11 };

/* The conversion "%i" of Part 5.5 step 7: blanks skipped, an optional sign,
 * decimal, 0x hexadecimal or 0 octal. strtol with base 0 reads exactly that.
 * Part 5.5 "Left to the implementer" (safe choice, GUIDE section 2): "%i" has
 * no defined result for a number that does not fit an int; such a number
 * counts as no number, and the result stays 0. */
static int parse_offset(const char *text)
{
    char *end;
    errno = 0;
    long v = strtol(text, &end, 0);
    if (end == text || errno == ERANGE || v > INT_MAX || v < INT_MIN)
        return 0;
    return (int)v;
}

/* The spec's procedure, kept as it stands (the scratch file "temp" in the
 * working directory, "tail -n 1 temp", "rm temp"): it gives -1 when the
 * working directory is not writable, which a direct reading would not. */
int Parse_File(void)
{
    char line[LINE_BUFFER] = "";
    char last[LINE_BUFFER] = "";
    int result = 0;

    FILE *list = plat_fopen("/leap-seconds.list", "r");
    if (list == NULL)
        return -1;
    FILE *temp = plat_fopen("temp", "w");
    if (temp == NULL) {
        fclose(list);
        return -1;
    }
    /* Exactly 238 reads: after the end of the list fgets leaves the buffer
     * as it was, so the last line read is copied again unless a comment. */
    for (int i = 0; i < LINES_READ; i++) {
        if (fgets(line, READ_SIZE, list) == NULL && line[0] == '\0')
            continue;
        if (line[0] != '#')
            fputs(line, temp);
    }
    fclose(temp);

    FILE *again = plat_fopen("temp", "r");
    if (again == NULL) {
        fclose(list);
        return -1;
    }
    int rc = run_read_lines("tail -n 1 temp", 1, 1, last, READ_SIZE);
    if (rc == RUN_NOT_STARTED) {
        fclose(again);
        fclose(list);
        return -1;
    }
    /* Step 7: "%i" from character 11; nothing is read beyond the line. */
    if (strlen(last) > OFFSET_COLUMN)
        result = parse_offset(last + OFFSET_COLUMN);
    fclose(again);

    if (run_command("rm temp", "w") != 0) {
        fclose(list);
        return -1;
    }
    fclose(list);
    return result;
}
