/* FPGA load and readiness check (Part 6.1). */
#include <string.h>

#include "daemon/shared.h"
#include "fpga/ThreadFPGA.h"
#include "test_support.h"

#define LOADER "./wrFPGA --file Version_1.rbf"
#define READ2 "./spiWrite -m 0 -l 3 -d 1 2 0"

static int fpga_board(void **state)
{
    board_setup(state);
    cfgOk = 0;
    vplat_reg_set(2, 0x1E);
    return 0;
}

static void test_answer_with_line_end_ready_at_once(void **state)
{
    (void)state;
    /* E6.1-1 */
    int64_t before = vplat_now_us();
    BurnFPGA();
    assert_int_equal(cfgOk, 1);
    assert_int_equal(vplat_loader_runs(), 1);
    assert_commands(0, LOADER, READ2, "./spiWrite -m 1 -l 3 -d 1 1 30 0", NULL);
    assert_int_equal(vplat_cmd_count(), 3);
    assert_string_equal(vplat_cmd_mode(0), "r");
    assert_string_equal(vplat_cmd_mode(2), "r");
    assert_int_equal(vplat_now_us(), before); /* no wait after a success */
    assert_int_equal(vplat_reg_get(1), 30);   /* register 1 receives the control value */
}

static void test_answer_without_line_end_no_match(void **state)
{
    (void)state;
    /* E6.1-2: "AA AA A5" at the very end of the output, without a line end. */
    const char *write = "./spiWrite -m 1 -l 3 -d 1 1 30 0";
    vplat_on_command_once(write, spi_output("AA AA A5"));
    vplat_on_command_once(write, spi_output("AA AA A5"));
    int64_t before = vplat_now_us();
    BurnFPGA();
    assert_int_equal(cfgOk, 1);
    assert_int_equal(vplat_cmd_occurrences(write), 3);  /* two failed attempts, then the match */
    assert_int_equal(vplat_now_us() - before, 2000000); /* one second between attempts */
    assert_int_equal(vplat_loader_runs(), 1);           /* never loaded twice */
}

static void test_answer_one_character_too_many(void **state)
{
    (void)state;
    /* E6.1-3: "AA AA A5", a blank and a line end. */
    const char *write = "./spiWrite -m 1 -l 3 -d 1 1 30 0";
    vplat_on_command_once(write, spi_output("AA AA A5 \n"));
    vplat_on_command_once(write, spi_output("AA AA A5 00 00\n"));
    vplat_on_command_once(write, spi_output("AA AA A6\n"));
    BurnFPGA();
    assert_int_equal(vplat_cmd_occurrences(write), 4);
    assert_int_equal(cfgOk, 1);
}

static void test_loader_missing(void **state)
{
    (void)state;
    /* E6.1-4: the loader cannot be started; the attempts run as usual and an
     * FPGA that was already configured is accepted. */
    vplat_fail_command(LOADER);
    BurnFPGA();
    assert_int_equal(vplat_loader_runs(), 0);
    assert_int_equal(cfgOk, 1);
    assert_commands(0, LOADER, READ2, "./spiWrite -m 1 -l 3 -d 1 1 30 0", NULL);
}

static void test_ready_ignores_line_182(void **state)
{
    (void)state;
    /* E6.1-5: line 182 reads 0 while the thread is ready: nothing happens. */
    InitFPGA();
    assert_string_equal(vplat_gpio_direction(182), "in");
    assert_string_equal(vplat_gpio_direction(13), "in");
    BurnFPGA();
    size_t count = vplat_cmd_count();
    vplat_gpio_set_input(182, 0);
    size_t reads = vplat_gpio_reads(182);
    for (int i = 0; i < 5; i++)
        SrvFPGA();
    assert_int_equal(vplat_cmd_count(), count);
    assert_int_equal(vplat_gpio_reads(182), reads);
    assert_int_equal(cfgOk, 1);
}

static void test_short_output_counts_as_failed(void **state)
{
    (void)state;
    /* Part 6.1 "Left to the implementer": fewer than five lines is a failed
     * attempt; so is a write that cannot start and a failed register-2 read
     * (nothing that did not come from the register is written). */
    const char *write = "./spiWrite -m 1 -l 3 -d 1 1 30 0";
    vplat_on_command_once(write, "AA AA A5\n");
    vplat_on_command_once(READ2, "no\nanswer\n");
    BurnFPGA();
    assert_int_equal(cfgOk, 1);
    /* attempt 1: register 2 unreadable, no write; attempt 2: short answer; attempt 3: match */
    assert_commands(0, LOADER, READ2, READ2, write, READ2, write, NULL);
}

static void test_unconfigured_fpga_loaded_once(void **state)
{
    (void)state;
    /* The FPGA answers only after the loader ran: one load, then the reply. */
    vplat_fpga_configured(0);
    BurnFPGA();
    assert_int_equal(vplat_loader_runs(), 1);
    assert_int_equal(cfgOk, 1);
    SrvFPGA();
    assert_int_equal(vplat_loader_runs(), 1);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_answer_with_line_end_ready_at_once, fpga_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_answer_without_line_end_no_match, fpga_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_answer_one_character_too_many, fpga_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_loader_missing, fpga_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_ready_ignores_line_182, fpga_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_short_output_counts_as_failed, fpga_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_unconfigured_fpga_loaded_once, fpga_board,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
