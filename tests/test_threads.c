/* The three worker threads share state (Part 1.2): here they run truly
 * concurrently (real threads, no virtual-time scheduler) against the virtual
 * board, so that the ThreadSanitizer build checks that every shared access
 * is serialised: Command_Out, timeinfo, Alarm, Leap_Time, register 2. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "cycle/ThreadINT.h"
#include "daemon/shared.h"
#include "daemon/startup.h"
#include "fpga/ThreadFPGA.h"
#include "supervision/ThreadLED.h"
#include "test_support.h"

enum { ROUNDS = 150 };

static void *cycle_thread(void *arg)
{
    (void)arg;
    cycle_setup();
    for (int i = 0; i < ROUNDS; i++)
        cycle_run();
    return NULL;
}

static void *supervision_thread(void *arg)
{
    (void)arg;
    init_gpio_input();
    for (int i = 0; i < ROUNDS / 10; i++)
        led_pass();
    return NULL;
}

static void *fpga_thread(void *arg)
{
    (void)arg;
    InitFPGA();
    for (int i = 0; i < ROUNDS; i++)
        SrvFPGA();
    return NULL;
}

static void test_threads_run_concurrently(void **state)
{
    (void)state;
    vplat_write_file("/usr/bin/Zarvent/enable.cfg", "1\n");
    vplat_write_file("/leap-seconds.list", "3692217600\t37\t# 1 Jan 2017\n");
    vplat_gpio_provide(79, 0, 1);
    vplat_gpio_provide(86, 0, 1);
    vplat_gpio_provide(87, 0, 1);
    vplat_gpio_provide(88, 0, 1);
    vplat_reg_set(14, 5);
    vplat_reg_set(26, 3);
    CreateRAMDisk();
    pthread_t t[3];
    assert_int_equal(pthread_create(&t[0], NULL, fpga_thread, NULL), 0);
    assert_int_equal(pthread_create(&t[1], NULL, supervision_thread, NULL), 0);
    assert_int_equal(pthread_create(&t[2], NULL, cycle_thread, NULL), 0);
    for (int i = 0; i < 3; i++)
        pthread_join(t[i], NULL);

    /* Each thread did its work: the cycle steered (60 valid cycles), the
     * supervision named the reference and read the leap seconds, the FPGA
     * answered. */
    assert_int_equal(Sync_En, 1);
    char name[18];
    command_out_text(CO_REF_NAME, name, sizeof name);
    assert_string_equal(name, "GPS+GLONASS");
    assert_int_equal(atomic_load(&Leap_Time), 37);
    assert_int_equal(cfgOk, 1);
    char *page = vplat_read_file("/ramcache/zarvent/ntp_data.txt");
    assert_non_null(page);
    assert_non_null(strstr(page, "<b>Current Offset [ns]:</b>\t-50\n"));
    assert_non_null(strstr(page, "<b>Reference time:</b>    GPS+GLONASS\n"));
    free(page);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_threads_run_concurrently, board_setup, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
