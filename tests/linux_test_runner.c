/* The command runner and register parsing over the Linux backend: real
 * popen of harmless shell commands (printf), nothing else on the host. */
#include <setjmp.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <cmocka.h>

#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

static void test_fifth_line(void **state)
{
    (void)state;
    char buf[100];
    assert_int_equal(run_read_lines("printf 'a\\nb\\nc\\nd\\nAA AA 3C\\n'", 5, 5, buf, sizeof buf),
                     0);
    assert_string_equal(buf, "AA AA 3C\n");
    long v = 0;
    assert_int_equal(reg_read_byte("printf 'a\\nb\\nc\\nd\\nAA AA 3C\\n'", 6, &v), 0);
    assert_int_equal(v, 60);
    assert_int_equal(reg_read_word("printf 'a\\nb\\nc\\nd\\nAA AA 34 12\\n'", &v), 0);
    assert_int_equal(v, 4660);
}

static void test_short_output(void **state)
{
    (void)state;
    char buf[100];
    assert_int_equal(run_read_lines("printf 'a\\nb\\n'", 5, 5, buf, sizeof buf), RUN_SHORT);
    assert_string_equal(buf, "");
    long v = 99;
    assert_int_equal(reg_read_byte("printf ''", 5, &v), -1);
    assert_int_equal(v, 99);
}

static void test_missing_tool(void **state)
{
    (void)state;
    /* The shell starts but the program is missing: no output, which is short output. */
    char buf[100];
    assert_int_equal(
        run_read_lines("/nonexistent/spiWrite -m 0 2>/dev/null", 5, 5, buf, sizeof buf), RUN_SHORT);
    assert_int_equal(run_has_output("/nonexistent/ntpq -p 2>/dev/null | grep '*G'"), 0);
    assert_int_equal(run_has_output("printf 'x'"), 1);
    assert_int_equal(run_command("true", "r"), 0);
    assert_int_equal(run_command("true", "w"), 0);
}

static void test_overlong_line_and_no_newline(void **state)
{
    (void)state;
    char buf[100];
    /* 300 characters on one line: read in pieces of 99; nothing overflows. */
    assert_int_equal(run_read_lines("printf '%0300d\\n' 0", 4, 4, buf, sizeof buf), 0);
    assert_string_equal(buf, "000\n");
    assert_int_equal(run_read_lines("printf 'a\\nb\\nc\\nd\\nAA AA 2A'", 6, 5, buf, sizeof buf), 0);
    assert_string_equal(buf, "AA AA 2A");
}

static void test_clock(void **state)
{
    (void)state;
    struct tm t;
    time_t now = plat_time();
    assert_true(now > 1700000000);
    assert_non_null(plat_localtime(now, &t));
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test(test_fifth_line),   cmocka_unit_test(test_short_output),
        cmocka_unit_test(test_missing_tool), cmocka_unit_test(test_overlong_line_and_no_newline),
        cmocka_unit_test(test_clock),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
