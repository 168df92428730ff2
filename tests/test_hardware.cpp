// The pin layer, the DAC's three-wire words and the register tool.
#include "support/fixture.h"

#include <cerrno>

#include "hardware/dac.h"

namespace zarvent::test {
namespace {

using HardwareTest = BoardTest;

TEST_F(HardwareTest, PinLayerFollowsSysfs)
{
    EXPECT_EQ(gpio.readLevelOrZero(GpioPin{50}), 0); // never exported: reads 0
    EXPECT_EQ(gpio.readLevel(GpioPin{50}), std::nullopt);

    gpio.exportPin(GpioPin{70});
    gpio.setDirectionOut(GpioPin{70});
    EXPECT_LT(gpio.exportPin(GpioPin{70}), 0); // already exported: refused, nothing else
    EXPECT_EQ(board.gpio().direction(70), "out");

    gpio.exportPin(GpioPin{106});
    gpio.setDirectionOut(GpioPin{106});
    gpio.setLevel(GpioPin{106}, 1);
    EXPECT_EQ(board.gpio().lastWrite(106), "1");
    EXPECT_EQ(board.gpio().level(106), 1);
    gpio.exportPin(GpioPin{79});
    gpio.setDirectionIn(GpioPin{79});
    board.gpio().setInput(79, 1);
    EXPECT_EQ(gpio.readLevel(GpioPin{79}), 1);

    EXPECT_LT(gpio.setEdge(GpioPin{5}, "rising"), 0);
    EXPECT_EQ(board.process().errorOutput(), "gpio/set-edge: No such file or directory\n");
    gpio.exportPin(GpioPin{19});
    EXPECT_EQ(gpio.setEdge(GpioPin{19}, "rising"), 0);
    EXPECT_EQ(board.gpio().edge(19), "rising");
}

TEST_F(HardwareTest, KeptLineReadsAtOffsetZeroThroughOneDescriptor)
{
    OpenPin pulse(board, GpioPin{19});
    EXPECT_EQ(pulse.read(), 0); // not exported yet
    board.gpio().provideLine(19, false, 1);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(pulse.read(), 1);
    board.gpio().setInput(19, 0);
    EXPECT_EQ(pulse.read(), 0);
    EXPECT_EQ(board.descriptors().openCount(), 1);
}

TEST_F(HardwareTest, DacWords)
{
    dac.configureLines();
    EXPECT_EQ(board.gpio().direction(96), "out");
    EXPECT_EQ(board.gpio().level(96), 0);
    EXPECT_EQ(board.gpio().level(106), 1);
    EXPECT_EQ(board.gpio().level(118), 0);

    struct {
        unsigned command, value, word;
    } cases[] = {
        {3, 0, 0x300000},     {3, 65535, 0x3FFFF0}, {4, 2048, 0x408000},
        {3, 70000, 0x3FFFF0}, // a centre beyond 16 bits is clamped, the command kept
        {3, 33000, 0x380E80},
    };
    for (const auto &c : cases) {
        const auto levelsBefore = board.gpio().levels().size();
        EXPECT_TRUE(dac.writeWord(c.command, c.value));
        EXPECT_EQ(board.gpio().levels().size() - levelsBefore, 74u);
        const sim::DacWord last = board.gpio().dacWords().back();
        EXPECT_EQ(last.word, c.word);
        EXPECT_FALSE(last.malformed);
        EXPECT_EQ(board.gpio().level(106), 1); // select idle between words
    }
    EXPECT_FALSE(dac.writeWord(16, 0));
    EXPECT_EQ(board.gpio().dacWords().size(), std::size(cases));
}

TEST_F(HardwareTest, RegisterReadModifyWrite)
{
    board.fpga().setRegister(2, 0x05);
    EXPECT_EQ(registers.modifyControl(2, 0, PipeMode::Write), 7u);
    EXPECT_EQ(registers.modifyControl(0, 2, PipeMode::Write), 5u);
    EXPECT_EQ(registerWrites(), (std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 2 7 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 2 5 0"}));
    board.fpga().setRegister(24, 4660);
    EXPECT_EQ(registers.readRequests(), 4660u);
}

TEST_F(HardwareTest, ValueThatDidNotComeFromTheRegisterIsNeverWritten)
{
    const std::string outputs[] = {
        toolOutput("ioctl: bad address\n"),   // would parse as 0xBAD
        toolOutput("AA AA 1\n"),              // one digit short
        toolOutput("AA AA 3C\nextra line\n"), // a sixth line
        "spiWrite: cannot open /dev/spidev0.0\n",
        "",
    };
    for (const auto &output : outputs) {
        board.tools().onCommand("./spiWrite -m 0 -l 3 -d 1 2 0", output);
        EXPECT_EQ(registers.readControl(), std::nullopt) << output;
        EXPECT_EQ(registers.modifyControl(1, 0, PipeMode::Read), std::nullopt) << output;
    }
    board.tools().failCommand("./spiWrite -m 0 -l 3 -d 1 2 0");
    EXPECT_EQ(registers.modifyControl(1, 0, PipeMode::Read), std::nullopt);
    EXPECT_TRUE(registerWrites().empty());
}

} // namespace
} // namespace zarvent::test
