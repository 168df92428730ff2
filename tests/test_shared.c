/* Shared state (Part 1.2). */
#include <string.h>

#include "daemon/shared.h"
#include "test_support.h"

static void test_initial_values(void **state)
{
    (void)state;
    assert_int_equal(sizeof Stat_Out, 24928);
    assert_int_equal(sizeof Command_Out, 163);
    assert_int_equal(DAC_VOLTAGE, 32768);
    assert_int_equal(Save_Sync, 32768);
    assert_int_equal(first_f, 1);
    assert_int_equal(Trans_count, 1);
    assert_int_equal(smode, 1);
    assert_int_equal(UptimeFlag, 1);
    assert_int_equal(Sync_En, 0);
    assert_int_equal(cfgOk, 0);
    assert_string_equal(FPGA_A5, "AA AA A5");
    for (size_t i = 0; i < sizeof Command_Out; i++)
        assert_int_equal(Command_Out[i], 0);
}

static void test_stat_out_field_order(void **state)
{
    (void)state;
    /* Part 4.2's order: ReqSec, RespSec, ReqMin, RespMin, ReqHour, RespHour, ReqDay, RespDay,
     * floats. */
    assert_int_equal(offsetof(struct stat_out, ReqSec), 0);
    assert_int_equal(offsetof(struct stat_out, RespSec), 480);
    assert_int_equal(offsetof(struct stat_out, ReqMin), 960);
    assert_int_equal(offsetof(struct stat_out, RespMin), 960 + 11520);
    assert_int_equal(offsetof(struct stat_out, ReqHour), 960 + 23040);
    assert_int_equal(offsetof(struct stat_out, RespHour), 960 + 23040 + 192);
    assert_int_equal(offsetof(struct stat_out, ReqDay), 960 + 23040 + 384);
    assert_int_equal(offsetof(struct stat_out, RespDay), 960 + 23040 + 384 + 256);
    assert_int_equal(offsetof(struct stat_out, RespAvg), 24896);
    assert_int_equal(offsetof(struct stat_out, ReqHourSum), 24916);
}

static void test_command_out_positions(void **state)
{
    (void)state;
    command_out_put(CO_OFFSET, "-50", 4);
    assert_memory_equal(Command_Out + 53, "-50", 4);
    char text[18];
    command_out_put(CO_REF_NAME, "NULL", 5);
    command_out_text(CO_REF_NAME, text, sizeof text);
    assert_string_equal(text, "NULL");
    command_out_set_byte(CO_ANTENNA, 7);
    assert_int_equal(command_out_byte(CO_ANTENNA), 7);
    /* Writes never pass the end of the record. */
    command_out_put(160, "abcdef", 6);
    assert_memory_equal(Command_Out + 160, "abc", 3);
    char tail[6];
    command_out_get(160, tail, sizeof tail);
    assert_memory_equal(tail, "abc\0\0\0", 6);
    memset(Command_Out, 0, sizeof Command_Out);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_initial_values),
        cmocka_unit_test(test_stat_out_field_order),
        cmocka_unit_test(test_command_out_positions),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
