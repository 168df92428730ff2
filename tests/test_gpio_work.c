/* GPIO pin layer (Part 2.1). */
#include <stdlib.h>
#include <string.h>

#include "hardware/gpio_work.h"
#include "test_support.h"

static void test_get_input_unexported_reads_zero(void **state)
{
    (void)state;
    /* E2.1-1 */
    assert_int_equal(vplat_gpio_exported(79), 0);
    assert_int_equal(PinGetInput("79"), 0);
}

static void test_export_twice_keeps_direction(void **state)
{
    (void)state;
    /* E2.1-2 */
    PinAddToWorkspace("72");
    PinSetDirectionOut("72");
    PinSetOutput("72", 1);
    assert_true(PinAddToWorkspace("72") < 0); /* the kernel refuses; nothing is reported */
    assert_true(vplat_gpio_exported(72));
    assert_string_equal(vplat_gpio_direction(72), "out");
    assert_int_equal(vplat_gpio_level(72), 1);
}

static void test_set_output_writes_single_character(void **state)
{
    (void)state;
    /* E2.1-3 */
    PinAddToWorkspace("106");
    PinSetDirectionOut("106");
    PinSetOutput("106", 1);
    size_t len;
    const char *bytes = vplat_gpio_last_write(106, &len);
    assert_int_equal(len, 1);
    assert_memory_equal(bytes, "1", 1);
    assert_int_equal(vplat_gpio_level(106), 1);
}

static void set_edge_missing(void *result)
{
    *(int *)result = GpioSetEdge(19, "rising");
}

static void test_set_edge_missing_line(void **state)
{
    (void)state;
    /* E2.1-4 */
    int rc = 0;
    char *err = capture_stderr(set_edge_missing, &rc);
    assert_true(rc < 0);
    assert_string_equal(err, "gpio/set-edge: No such file or directory\n");
    free(err);
}

static void test_protocol_bytes(void **state)
{
    (void)state;
    /* Export writes the pin text with its terminating zero; direction and edge likewise. */
    assert_int_equal(PinAddToWorkspace("19"), 3);
    assert_int_equal(PinSetDirectionIn("19"), 3);
    assert_string_equal(vplat_gpio_direction(19), "in");
    assert_int_equal(GpioSetEdge(19, "rising"), 0);
    assert_string_equal(vplat_gpio_edge(19), "rising");
    assert_int_equal(PinAddToWorkspace("96"), 3);
    assert_int_equal(PinSetDirectionOut("96"), 4);
    /* An input refuses a level, as the kernel does (EPERM). */
    assert_true(PinSetOutput("19", 1) < 0);
    vplat_gpio_set_input(19, 1);
    assert_int_equal(PinGetInput("19"), 1);
    vplat_gpio_set_input(19, 0);
    assert_int_equal(PinGetInput("19"), 0);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_get_input_unexported_reads_zero, board_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_export_twice_keeps_direction, board_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_set_output_writes_single_character, board_setup,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_set_edge_missing_line, board_setup, board_teardown),
        cmocka_unit_test_setup_teardown(test_protocol_bytes, board_setup, board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
