// The one-second cycle on the virtual board: the driver, the time hand-over,
// the offset and its qualification, the relay reset, the client indicator and
// the steering with its chart files.
#include "support/fixture.h"

#include "daemon/cycle_loop.h"

namespace zarvent::test {
namespace {

constexpr std::int64_t kSecondUs = 1'000'000;

class CycleTest : public BoardTest {
  protected:
    CycleTest()
    {
        shared.taiOffset = 37;
        board.fpga().setConfigured(true);
        board.gpio().provideLine(19, false, 0);
    }
    // Polls line 19 every 500 µs for the given virtual time.
    void pollFor(std::int64_t us)
    {
        for (const std::int64_t end = board.clock().nowUs() + us; board.clock().nowUs() < end;) {
            cycle.poll();
            board.sleepMicroseconds(500);
        }
    }
    // One cycle at the top of each of the next `count` seconds.
    void cycles(int count)
    {
        for (int i = 0; i < count; ++i) {
            board.clock().setNowUs((board.clock().nowUs() / kSecondUs + 1) * kSecondUs);
            cycle.runCycle();
        }
    }
    std::size_t count(const std::string &line) const
    {
        return board.tools().countCommand(line);
    }

    Dac &dac = parts.dac;
    CycleLoop cycle{parts};
};

TEST_F(CycleTest, OneCyclePerHighPhase)
{
    board.gpio().setPulse(19, 900000); // high for 900 ms of each second, from the start
    cycle.setup();
    pollFor(2 * kSecondUs + 500000);
    EXPECT_EQ(count("./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0"), 3u);

    // Once a cycle has run, a low read followed by a high one in the same
    // poll does not arm the next cycle.
    board.gpio().setPulse(19, 0);
    board.gpio().setInput(19, 1);
    board.gpio().queueReads(19, {0, 1});
    pollFor(10000);
    EXPECT_EQ(count("./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0"), 3u);
    board.gpio().setInput(19, 0);
    pollFor(1000);
    board.gpio().setInput(19, 1);
    pollFor(1000);
    EXPECT_EQ(count("./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0"), 4u);
}

TEST_F(CycleTest, SetupOwnsTheDacLines)
{
    board.files().writeFile("/usr/bin/Zarvent/dac_voltage", "33000\n");
    cycle.setup();
    EXPECT_EQ(board.gpio().edge(19), "rising");
    EXPECT_EQ(board.gpio().direction(106), "out");
    const auto words = board.gpio().dacWords();
    ASSERT_EQ(words.size(), 2u);
    EXPECT_EQ(words[0].word, 0x408000u);
    EXPECT_EQ(words[1].word, 0x380E80u);
    EXPECT_EQ(shared.event().time, "13:27:00");
}

TEST_F(CycleTest, QualificationGatesHandOverAndSteering)
{
    dac.configureLines();
    board.fpga().setRegister(2, 0x02);
    cycles(59);
    EXPECT_FALSE(shared.steering);
    EXPECT_TRUE(registerWrites().empty());
    cycles(1); // the 60th valid cycle steers at once, the hand-over waits
    EXPECT_TRUE(shared.steering);
    EXPECT_EQ(registerWrites(), (std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 1 3 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 1 3 0"}));
    EXPECT_EQ(board.gpio().dacWords().size(), 2u);
    board.tools().clearCommands();
    board.ntp().setRmcStatus('V');
    cycles(1); // hands the time over, then loses the receiver: no steering
    EXPECT_FALSE(shared.steering);
    EXPECT_EQ(count("/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 1\n"), 1u);
    EXPECT_EQ(count("./spiWrite -m 1 -l 3 -d 1 1 2 0"), 1u);
    EXPECT_EQ(board.gpio().dacWords().size(), 2u);
    // The first invalid cycle after 59 valid ones starts the count anew.
    board.ntp().setRmcStatus('A');
    cycles(59);
    board.ntp().setRmcStatus('V');
    cycles(1);
    board.ntp().setRmcStatus('A');
    cycles(59);
    EXPECT_FALSE(shared.steering);
    cycles(1);
    EXPECT_TRUE(shared.steering);
}

TEST_F(CycleTest, ReceiverQueryThatCannotStartChangesNothing)
{
    shared.steering = true;
    board.tools().failCommand("ntpq -c clockvar");
    parts.offset.qualifyReceiver();
    EXPECT_TRUE(shared.steering);
    EXPECT_TRUE(registerWrites().empty());
    board.tools().onCommand("ntpq -c clockvar", "associd=0 status=0000\n");
    parts.offset.qualifyReceiver(); // too short: no valid data
    EXPECT_FALSE(shared.steering);
}

class HandoverTest : public CycleTest {
  protected:
    // 2026-11-16 13:27:46 UTC: ntptime shows eea58352.
    static constexpr std::int64_t kAt = (kStart + 46) * kSecondUs + 121000;
    TimeHandover &handover = parts.handover;
};

TEST_F(HandoverTest, WorkedExample)
{
    board.tools().onCommand("ntptime", ntptimeAt(kAt));
    handover.setNumber(5);
    const auto reading = readCurrentTime(runner, shared);
    ASSERT_TRUE(reading);
    board.tools().clearCommands();
    // The alarm thread may rewrite the shared stamp meanwhile: the hand-over
    // uses this cycle's own readings.
    shared.setEvent("Nov 16 2026 13:27:00.000", "eea58300.00000000 ");
    handover.handOver(*reading);
    EXPECT_EQ(lines(), (std::vector<std::string>{
                           "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 5\n",
                           "/usr/bin/Zarvent/spiWrite -m 1 -l 8 -d 6 3 248 4 251 106 0 0\n",
                           "ntptime", "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 5\n"}));
    EXPECT_EQ(handover.number(), 6);
    EXPECT_EQ(shared.now().time, "13:27:46");
}

TEST_F(HandoverTest, SecondThatRollsOverLeavesTheHandOverOpen)
{
    board.tools().onCommandOnce("ntptime", ntptimeAt(kAt));
    board.tools().onCommandOnce("ntptime", ntptimeAt(kAt + 900000));
    handover.setNumber(5);
    handover.handOver(*readCurrentTime(runner, shared));
    EXPECT_EQ(count("/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 5\n"), 0u);
    EXPECT_EQ(handover.number(), 5);

    board.tools().onCommand("ntptime", ntptimeAt(kAt));
    handover.setNumber(255);
    handover.handOver(*readCurrentTime(runner, shared));
    EXPECT_EQ(count("/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 255\n"), 1u);
    EXPECT_EQ(handover.number(), 1);
}

TEST_F(HandoverTest, TimeInAnotherFormIsNoReading)
{
    shared.steering = true;
    readCurrentTime(runner, shared);
    const std::string before = shared.stamp();
    // ntpsec's ISO line, the same every time: neither the page nor a
    // hand-over may take it.
    board.tools().onCommand("ntptime", "ntp_gettime() returns code 0 (OK)\n"
                               "  time eeade443.45e05000 2026-11-22T21:59:31.272Z, (.272954),\n");
    EXPECT_FALSE(readCurrentTime(runner, shared));
    EXPECT_EQ(shared.stamp(), before);
    EXPECT_EQ(shared.now().time, "13:27:00");
    cycle.runCycle();
    EXPECT_EQ(count("/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 1\n"), 0u);
    EXPECT_EQ(shared.stamp(), before);
}

TEST_F(CycleTest, OffsetTextAndJitterBlocks)
{
    OffsetReadout &offset = parts.offset;
    board.fpga().setRegister(14, 50000000);
    EXPECT_EQ(offset.readOffset(), -500000000);
    EXPECT_EQ(offsetAsShown(-500000000), -5000000);
    board.fpga().setRegister(14, 5);
    for (int i = 1; i < 127; ++i)
        offset.readOffset();
    EXPECT_EQ(shared.jitterNs, 0);
    board.fpga().setRegister(14, 99999995);
    offset.readOffset(); // the 128th ends the block
    EXPECT_EQ(shared.jitterNs, 500000050);
    board.fpga().setRegister(14, 5);
    for (int i = 0; i < 128; ++i)
        offset.readOffset();
    EXPECT_EQ(shared.jitterNs, 100); // the next block starts from +50
    board.fpga().setRegisterToolFault(sim::RegisterToolFault::Garbage);
    EXPECT_EQ(offset.readOffset(), 0);
}

TEST_F(CycleTest, RelayResetFiveSecondsAfterAnEvent)
{
    RelayReset &relay = parts.relay;
    board.fpga().setRegister(2, 0x01);
    board.fpga().setRegister(28, 1);
    relay.acknowledge(100);
    board.fpga().setRegister(28, 0); // gone at the next read: the pulse still comes
    for (std::int64_t t = 101; t <= 104; ++t)
        relay.acknowledge(t);
    EXPECT_TRUE(registerWrites().empty());
    relay.acknowledge(105);
    EXPECT_EQ(registerWrites(), (std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 2 3 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 2 1 0"}));
    board.tools().clearCommands();
    board.fpga().setRegister(28, 3);
    relay.acknowledge(200);
    board.fpga().setRegister(28, 0);
    relay.acknowledge(205); // both in one call: bit 1 first
    EXPECT_EQ(registerWrites(), (std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 2 3 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 2 1 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 2 5 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 2 1 0"}));
}

TEST_F(CycleTest, ClientIndicatorFlashesOnTheLowByte)
{
    ClientIndicator &client = parts.client;
    for (auto [responses, flash] : {std::pair{0, false}, {256, false}, {65535, true}, {1, true}}) {
        board.tools().clearCommands();
        board.fpga().setRegister(26, static_cast<std::uint64_t>(responses));
        client.switchOff();
        client.flashOnResponses();
        EXPECT_EQ(count("echo 1 > /sys/class/gpio/gpio71/value"), flash ? 1u : 0u) << responses;
        EXPECT_EQ(lines().back(), "echo 0 > /sys/class/gpio/gpio71/value");
    }
}

class SteeringTest : public CycleTest {
  protected:
    SteeringTest()
    {
        dac.configureLines();
        board.clock().setNowUs((kStart + 38 * 60 + 59) * kSecondUs); // 14:05:59
    }
    void steerAt(std::int64_t unixSecond)
    {
        board.clock().setNowUs(unixSecond * kSecondUs);
        shared.setCycleTime(*board.localTime(unixSecond));
        steering.steer(100);
    }
    std::size_t chartFiles()
    {
        std::size_t n = 0;
        for (const auto &name : board.listDirectory("/ramcache/zarvent"))
            n += isChartFileName(name);
        return n;
    }
    Steering &steering = parts.steering;
};

TEST_F(SteeringTest, CentreFromItsFileWithARangeCheck)
{
    board.files().writeFile("/usr/bin/Zarvent/dac_voltage", "40000\n");
    steerAt(kStart);
    EXPECT_EQ(steering.centre(), 40000);
    board.files().writeFile("/usr/bin/Zarvent/dac_voltage", "-3000000000\n");
    steerAt(kStart + 1);
    EXPECT_EQ(steering.centre(), 40000);
    EXPECT_EQ(board.gpio().dacWords().back().word,
              0x300000u | (static_cast<unsigned>(steering.code()) << 4));
    EXPECT_LT(steering.code(), 41000);
}

TEST_F(SteeringTest, ChartPointsByMinute)
{
    steerAt(kStart + 38 * 60 + 59);
    steerAt(kStart + 39 * 60);
    EXPECT_EQ(file("/ramcache/zarvent/ptp_data_2026~11~16_14-05"),
              "[new Date(\"11/16/2026 14:05:59\"), 100],\n");
    EXPECT_EQ(file("/ramcache/zarvent/ptp_data_2026~11~16_14-06"),
              "[new Date(\"11/16/2026 14:06:00\"), 100],\n");
    EXPECT_EQ(registerWrites().back(), "./spiWrite -m 1 -l 3 -d 1 1 1 0");
}

TEST_F(SteeringTest, ChartFilesOfEveryRunStayWithinTheBound)
{
    // Five minutes of chart more than are kept, left by an earlier run, and
    // the placeholders.
    for (int i = 0; i < chart::kFilesKept + 5; ++i) {
        std::tm t = *board.localTime(kStart - 86400 + i * 60);
        board.files().writeFile(chartFileName(t), "[new Date(\"\"), 0],\n");
    }
    board.files().writeFile("/ramcache/zarvent/ptp_data_0000_00_01", "");
    steerAt(kStart);
    EXPECT_EQ(chartFiles(), static_cast<std::size_t>(chart::kFilesKept));
    EXPECT_FALSE(board.files().exists(chartFileName(*board.localTime(kStart - 86400 + 5 * 60))));
    EXPECT_TRUE(board.files().exists(chartFileName(*board.localTime(kStart - 86400 + 6 * 60))));
    EXPECT_TRUE(board.files().exists("/ramcache/zarvent/ptp_data_0000_00_01"));

    // A RAM disk that fills up from elsewhere takes chart files first.
    board.files().setRamDisk(1200, 2048);
    runner.run("mount /dev/ram1 /ramcache", PipeMode::Read);
    steerAt(kStart + 60);
    EXPECT_LE(chartFiles(), 300u); // 600 blocks of structures, one block a file
    EXPECT_GT(chartFiles(), 250u);
    EXPECT_TRUE(board.files().exists(chartFileName(*board.localTime(kStart + 60))));

    // Tight even with every older chart gone: the current minute's file stays.
    board.files().setRamDisk(700, 2048);
    runner.run("mount /dev/ram1 /ramcache", PipeMode::Read);
    steerAt(kStart + 120);
    EXPECT_EQ(chartFiles(), 1u);
    EXPECT_TRUE(board.files().exists(chartFileName(*board.localTime(kStart + 120))));
}

} // namespace
} // namespace zarvent::test
