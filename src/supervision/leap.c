/* Leap-second offset file (Part 5.5). */
#include "supervision/ThreadLED.h"

#include <stdio.h>
#include <string.h>

#include "hardware/runner.h"
#include "platform/platform.h"

enum { LINE_BUFFER = 256, READ_SIZE = 100, LINES_READ = 238, OFFSET_COLUMN = 11 };

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
    /* "%i" from character 11; nothing is read beyond the line. */
    if (strlen(last) > OFFSET_COLUMN && sscanf(last + OFFSET_COLUMN, "%i", &result) != 1)
        result = 0;
    fclose(again);

    if (run_command("rm temp", "w") != 0) {
        fclose(list);
        return -1;
    }
    fclose(list);
    return result;
}
