/* DAC serial write (Part 2.3): the words on lines 106, 96 and 118 as the
 * virtual board's decoder and level log see them. */
#include <stdint.h>

#include "hardware/dac.h"
#include "test_support.h"

static int dac_board(void **state)
{
    board_setup(state);
    /* Lines as the supervision set-up leaves them (Part 2.3 data model). */
    vplat_gpio_provide(96, 1, 0);
    vplat_gpio_provide(118, 1, 0);
    vplat_gpio_provide(106, 1, 1);
    return 0;
}

/* Asserts that the level log from index from holds exactly one frame for
 * word: select low, 24 times clock high / data bit / clock low, select high. */
static void assert_frame(size_t from, uint32_t word)
{
    assert_int_equal(vplat_level_count() - from, 74); /* 1 + 24 x 3 + 1 sysfs writes */
    const struct vplat_level *l = vplat_level_at(from);
    assert_int_equal(l->line, 106);
    assert_int_equal(l->level, 0);
    for (int bit = 23; bit >= 0; bit--) {
        size_t at = from + 1 + (size_t)(23 - bit) * 3;
        assert_int_equal(vplat_level_at(at)->line, 96);
        assert_int_equal(vplat_level_at(at)->level, 1);
        assert_int_equal(vplat_level_at(at + 1)->line, 118);
        assert_int_equal(vplat_level_at(at + 1)->level, (int)((word >> bit) & 1u));
        assert_int_equal(vplat_level_at(at + 2)->line, 96);
        assert_int_equal(vplat_level_at(at + 2)->level, 0);
        assert_int_equal(vplat_level_at(at)->by_shell, 0);
    }
    l = vplat_level_at(from + 73);
    assert_int_equal(l->line, 106);
    assert_int_equal(l->level, 1);
}

static void assert_last_word(uint32_t word)
{
    assert_true(vplat_dac_count() >= 1);
    const struct vplat_dac_word *w = vplat_dac_at(vplat_dac_count() - 1);
    assert_int_equal(w->bits, 24);
    assert_int_equal(w->malformed, 0);
    assert_int_equal(w->word, word);
}

static void test_command3_zero(void **state)
{
    (void)state;
    /* E2.3-1: 0x300000, the data line at 0 except for bits 21 and 20. */
    size_t from = vplat_level_count();
    assert_int_equal(SPIWriteInt(3, 0), 0);
    assert_frame(from, 0x300000);
    int ones = 0;
    for (int bit = 23; bit >= 0; bit--) {
        int level = vplat_level_at(from + 2 + (size_t)(23 - bit) * 3)->level;
        ones += level;
        assert_int_equal(level, bit == 21 || bit == 20);
    }
    assert_int_equal(ones, 2);
    assert_int_equal(vplat_dac_count(), 1);
    assert_last_word(0x300000);
    /* Idle levels between words: clock low, select high, data at the last bit. */
    assert_int_equal(vplat_gpio_level(96), 0);
    assert_int_equal(vplat_gpio_level(106), 1);
    assert_int_equal(vplat_gpio_level(118), 0);
}

static void test_command3_full_scale(void **state)
{
    (void)state;
    /* E2.3-2 */
    size_t from = vplat_level_count();
    SPIWriteInt(3, 65535);
    assert_frame(from, 0x3FFFF0);
    assert_last_word(0x3FFFF0);
}

static void test_command4_2048(void **state)
{
    (void)state;
    /* E2.3-3: exactly two data bits are 1, bits 22 and 15. */
    size_t from = vplat_level_count();
    SPIWriteInt(4, 2048);
    assert_frame(from, 0x408000);
    int ones = 0;
    for (int bit = 23; bit >= 0; bit--) {
        int level = vplat_level_at(from + 2 + (size_t)(23 - bit) * 3)->level;
        ones += level;
        assert_int_equal(level, bit == 22 || bit == 15);
    }
    assert_int_equal(ones, 2);
    assert_last_word(0x408000);
}

static void test_code_word_formula(void **state)
{
    (void)state;
    /* Part 2.3 command table: command 3 sends 0x300000 + code x 16. */
    SPIWriteInt(3, 32768);
    assert_last_word(0x380000);
    SPIWriteInt(3, 33532);
    assert_last_word(0x300000 + 33532 * 16);
    assert_int_equal(vplat_dac_count(), 2);
}

static void test_value_above_range_is_clamped(void **state)
{
    (void)state;
    /* Part 2.3 "Left to the implementer": a value above 65535 would change
     * the command bits; it is clamped to 65535. */
    size_t from = vplat_level_count();
    SPIWriteInt(3, 70000);
    assert_frame(from, 0x3FFFF0);
    SPIWriteInt(3, 0xFFFFFFFFu);
    assert_last_word(0x3FFFF0);
    SPIWriteInt(3, 65536);
    assert_last_word(0x3FFFF0);
}

static void test_command_above_15_is_rejected(void **state)
{
    (void)state;
    /* Part 2.3 "Left to the implementer": commands are 0 to 15; a larger one
     * sends nothing at all, not even the select line. */
    size_t from = vplat_level_count();
    assert_int_equal(SPIWriteInt(16, 5), -1);
    assert_int_equal(SPIWriteInt(0xFFFFFFFFu, 0), -1);
    assert_int_equal(vplat_level_count(), from);
    assert_int_equal(vplat_dac_count(), 0);
    SPIWriteInt(15, 1);
    assert_last_word(0xF00010);
}

static void test_unconfigured_lines_send_nothing(void **state)
{
    (void)state;
    /* Part 2.3 failure handling: lines that cannot be written leave the word
     * unsent without notice; the next call starts a fresh frame. */
    vplat_reset(T_EXAMPLE);
    vplat_board_tree();
    assert_int_equal(SPIWriteInt(3, 100), 0);
    assert_int_equal(vplat_level_count(), 0);
    assert_int_equal(vplat_dac_count(), 0);
    vplat_gpio_provide(96, 1, 0);
    vplat_gpio_provide(118, 1, 0);
    vplat_gpio_provide(106, 1, 1);
    SPIWriteInt(3, 100);
    assert_int_equal(vplat_dac_count(), 1);
    assert_last_word(0x300640);
}

int main(void)
{
    const struct CMUnitTest tests[] = {
        cmocka_unit_test_setup_teardown(test_command3_zero, dac_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_command3_full_scale, dac_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_command4_2048, dac_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_code_word_formula, dac_board, board_teardown),
        cmocka_unit_test_setup_teardown(test_value_above_range_is_clamped, dac_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_command_above_15_is_rejected, dac_board,
                                        board_teardown),
        cmocka_unit_test_setup_teardown(test_unconfigured_lines_send_nothing, dac_board,
                                        board_teardown),
    };
    return cmocka_run_group_tests(tests, NULL, NULL);
}
