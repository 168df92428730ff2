/* Supervision loop and reference indication (Part 5.1). */
#include "supervision/ThreadLED.h"

#include <stdio.h>
#include <string.h>

#include "daemon/shared.h"
#include "hardware/gpio_work.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

#define ERRORLOG "/ramcache/zarvent/errorlog.log"

enum { NAME_FIELD = 18 };

int ControlRefclock(void)
{
    return run_has_output("ntpq -p | grep '*G'");
}

int ControlRefPPS(void)
{
    return run_has_output("ntpq -p | grep 'oG'");
}

static void output_line(const char *pin, int level)
{
    PinAddToWorkspace(pin);
    PinSetDirectionOut(pin);
    if (level >= 0)
        PinSetOutput(pin, level);
}

static void input_line(const char *pin)
{
    PinAddToWorkspace(pin);
    PinSetDirectionIn(pin);
}

void init_gpio_input(void)
{
    static const char *const indicators[] = {"70", "71", "72", "73", "74", "75", "76", "77", "78"};
    for (size_t i = 0; i < sizeof indicators / sizeof indicators[0]; i++)
        output_line(indicators[i], -1);
    input_line("79");
    input_line("86");
    input_line("87");
    input_line("88");
    output_line("96", 0);
    output_line("106", 1);
    output_line("118", 0);
    /* The cycle thread's set-up waits for the DAC lines (Part 3.1). */
    atomic_store(&dac_lines_ready, 1);
    atomic_store(&Leap_Time, Parse_File());
}

/* Appends the errorlog line for a new reference name, stamped with the time
 * of the latest cycle. Part 5.1 "Left to the implementer": an errorlog that
 * cannot be opened loses the line; the loop goes on. */
static void log_reference(const char *name)
{
    struct tm t;
    timeinfo_get(&t);
    FILE *f = plat_fopen(ERRORLOG, "at");
    if (f == NULL)
        return;
    fprintf(f, "%02d.%02d %02d:%02d:%02d ", t.tm_mday, t.tm_mon + 1, t.tm_hour, t.tm_min, t.tm_sec);
    fprintf(f, "Reference time: %s\n", name);
    fclose(f);
}

/* Step 1 of a pass: indicators 72/73, the name, the errorlog. 1 when the GPS
 * reference is followed (system or PPS peer). */
static int reference_step(void)
{
    const char *name;
    int followed = 1;
    if (ControlRefclock()) {
        run_command("echo 1 > /sys/class/gpio/gpio72/value", "w");
        run_command("echo 1 > /sys/class/gpio/gpio73/value", "w");
        name = "GPS+GLONASS";
    } else if (ControlRefPPS()) {
        run_command("echo 0 > /sys/class/gpio/gpio72/value", "w");
        run_command("echo 1 > /sys/class/gpio/gpio73/value", "w");
        name = "GPS+GLONASS 1PPS";
    } else {
        run_command("echo 1 > /sys/class/gpio/gpio72/value", "w");
        run_command("echo 0 > /sys/class/gpio/gpio73/value", "w");
        name = "NULL";
        followed = 0;
    }
    command_out_put(CO_REF_NAME, name, strlen(name) + 1);
    command_out_set_byte(CO_REF_NAME + 17, 0);

    char current[NAME_FIELD], previous[NAME_FIELD];
    command_out_get(CO_REF_NAME, current, NAME_FIELD);
    command_out_get(CO_REF_PREV, previous, NAME_FIELD);
    previous[NAME_FIELD - 1] = '\0';
    if (strcmp(previous, current) != 0)
        log_reference(current);
    command_out_put(CO_REF_PREV, current, NAME_FIELD);
    return followed;
}

void led_pass(void)
{
    int followed = reference_step();

    /* Step 2: the reference-valid bit of register 2; a failed read is not
     * written back (Part 2.2 "Left to the implementer"). */
    if (followed)
        reg2_modify(1, 0, "r");
    else
        reg2_modify(0, 1, "r");

    ControlAlarm();
    ControlAntenna();
    NtpDefault();

    /* Step 4: the indicator test, held while line 79 reads 0. */
    while (PinGetInput("79") == 0) {
        static const char *const test[] = {
            "echo 1 > /sys/class/gpio/gpio72/value", "echo 1 > /sys/class/gpio/gpio73/value",
            "echo 1 > /sys/class/gpio/gpio74/value", "echo 1 > /sys/class/gpio/gpio75/value",
            "echo 1 > /sys/class/gpio/gpio76/value", "echo 1 > /sys/class/gpio/gpio77/value",
            "echo 1 > /sys/class/gpio/gpio70/value", "echo 1 > /sys/class/gpio/gpio71/value"};
        for (size_t i = 0; i < sizeof test / sizeof test[0]; i++)
            run_command(test[i], "w");
    }
}

void *ThreadSrvLED(void *arg)
{
    (void)arg;
    init_gpio_input();
    run_command("adjtimex -t 10082", "r");
    for (;;) {
        led_pass();
        plat_sleep(3);
    }
    return NULL;
}
