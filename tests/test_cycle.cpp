// The one-second cycle on the virtual board: the driver, the time hand-over,
// the offset and its qualification, the relay reset, the client indicator and
// the steering with its chart files.
#include "support/fixture.h"

#include "cycle/cycle_loop.h"
#include "ntp/ntp_queries.h"

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
    // One cycle at the top of each of the next `count` seconds, or afterUs
    // after it.
    void cycles(int count, std::int64_t afterUs = 0)
    {
        for (int i = 0; i < count; ++i) {
            board.clock().setNowUs((board.clock().nowUs() / kSecondUs + 1) * kSecondUs + afterUs);
            cycle.runCycle();
        }
    }
    // Times the daemon said text on standard error.
    std::size_t said(const std::string &text) const
    {
        const std::string errors = board.process().errorOutput();
        std::size_t n = 0;
        for (std::size_t at = errors.find(text); at != std::string::npos;
             at = errors.find(text, at + 1))
            ++n;
        return n;
    }
    std::string metrics() const
    {
        return file("/ramcache/zarvent/metrics/zarvent.prom");
    }
    std::size_t count(const std::string &line) const
    {
        return board.tools().countCommand(line);
    }

    CycleLoop cycle{board, runner, gpio, registers, dac, shared};
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
    EXPECT_FALSE(cycle.steeringEnabled());
    EXPECT_TRUE(registerWrites().empty());
    cycles(1); // the 60th valid cycle steers at once, the hand-over waits
    EXPECT_TRUE(cycle.steeringEnabled());
    EXPECT_EQ(registerWrites(), (std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 1 3 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 1 3 0"}));
    EXPECT_EQ(board.gpio().dacWords().size(), 2u);
    board.tools().clearCommands();
    board.ntp().setRmcStatus('V');
    cycles(1); // hands the time over, then loses the receiver: no steering
    EXPECT_FALSE(cycle.steeringEnabled());
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
    EXPECT_FALSE(cycle.steeringEnabled());
    cycles(1);
    EXPECT_TRUE(cycle.steeringEnabled());
}

// A query that could not start says nothing; one that started and gave no
// valid data (too short, or killed at its deadline) stops the steering.
TEST_F(CycleTest, ReceiverQueries)
{
    ReceiverQualification qualification(runner, registers);
    for (int i = 0; i < 60; ++i)
        qualification.qualify();
    ASSERT_TRUE(qualification.steeringEnabled());
    board.tools().clearCommands();
    board.tools().failCommand("ntpq -c clockvar");
    qualification.qualify();
    EXPECT_TRUE(qualification.steeringEnabled());
    EXPECT_TRUE(registerWrites().empty());
    board.tools().onCommand("ntpq -c clockvar", "associd=0 status=0000\n");
    qualification.qualify(); // too short: no valid data
    EXPECT_FALSE(qualification.steeringEnabled());
    EXPECT_EQ(registerWrites(), std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 1 0 0"});

    board.tools().clearRules();
    for (int i = 0; i < 60; ++i)
        qualification.qualify();
    ASSERT_TRUE(qualification.steeringEnabled());
    board.tools().setToolFault("ntpq", sim::ToolFault::Hang);
    qualification.qualify();
    EXPECT_FALSE(qualification.steeringEnabled());
    EXPECT_EQ(runner.failedReads().at("clockvar"), 3u); // not started, too short, killed
}

class HandoverTest : public CycleTest {
  protected:
    // 2026-11-16 13:27:46 UTC: ntptime shows eea58352.
    static constexpr std::int64_t kAt = (kStart + 46) * kSecondUs + 121000;
    static constexpr const char *kOpenOne = "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 1\n";
    TimeHandover handover{runner, registers, shared};
};

TEST_F(HandoverTest, WorkedExample)
{
    board.tools().onCommand("ntptime", ntptimeAt(kAt));
    const auto reading = readNtptime(runner);
    ASSERT_TRUE(reading);
    board.tools().clearCommands();
    const auto later = handover.handOver(*reading);
    EXPECT_EQ(lines(),
              (std::vector<std::string>{
                  kOpenOne, "/usr/bin/Zarvent/spiWrite -m 1 -l 8 -d 6 3 248 4 251 106 0 0\n",
                  "ntptime", "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 1\n"}));
    ASSERT_TRUE(later);
    EXPECT_EQ(later->dateTime, "Nov 16 2026 13:27:46.121");
    board.tools().clearCommands();
    handover.handOver(*reading);
    EXPECT_EQ(lines().front(), "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 2\n");
}

TEST_F(HandoverTest, SecondThatRollsOverLeavesTheHandOverOpen)
{
    board.tools().onCommand("ntptime", ntptimeAt(kAt));
    const auto first = readNtptime(runner);
    ASSERT_TRUE(first);
    board.tools().onCommandOnce("ntptime", ntptimeAt(kAt + 900000));
    handover.handOver(*first);
    EXPECT_EQ(count("/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 1\n"), 0u);
    // Opened again with the same number; the numbers run 1 to 255 and round
    // again to 1, never 0.
    for (int i = 0; i < 255; ++i)
        handover.handOver(*first);
    EXPECT_EQ(count(kOpenOne), 2u);
    EXPECT_EQ(count("/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 11 255\n"), 1u);
    board.tools().clearCommands();
    handover.handOver(*first);
    EXPECT_EQ(count(kOpenOne), 1u);
    EXPECT_EQ(handover.closed(), 256u);
    EXPECT_EQ(handover.failed(), 1u);
}

TEST_F(HandoverTest, TimeInAnotherFormIsNoReading)
{
    dac.configureLines();
    cycles(60);
    ASSERT_TRUE(cycle.steeringEnabled());
    // ntpsec's ISO line: neither the page nor a hand-over may take it.
    board.tools().onCommand("ntptime",
                            "ntp_gettime() returns code 0 (OK)\n"
                            "  time eeade443.45e05000 2026-11-22T21:59:31.272Z, (.272954),\n");
    EXPECT_FALSE(readNtptime(runner));
    cycles(1);
    EXPECT_EQ(count(kOpenOne), 0u);
    EXPECT_NE(file("/ramcache/zarvent/ntp_data.txt").find("<b>Time:</b>\t13:28:00\n"),
              std::string::npos);
}

TEST_F(CycleTest, OffsetTextAndJitterBlocks)
{
    OffsetReadout offset(registers);
    board.fpga().setRegister(14, 50000000);
    EXPECT_EQ(offset.readOffset().offsetNs, -500000000);
    EXPECT_EQ(offsetAsShown(-500000000), -5000000);
    board.fpga().setRegister(14, 5);
    EXPECT_TRUE(offset.readOffset().measured);
    for (int i = 2; i < 127; ++i)
        EXPECT_FALSE(offset.readOffset().blockJitterNs);
    board.fpga().setRegister(14, 99999995);
    EXPECT_EQ(offset.readOffset().blockJitterNs, 500000050); // the 128th ends the block
    board.fpga().setRegister(14, 5);
    for (int i = 1; i < 128; ++i)
        offset.readOffset();
    EXPECT_EQ(offset.readOffset().blockJitterNs, 100); // the next block starts from +50
    board.fpga().setRegister(14, 0xFEEEEEEE);          // the FPGA has no measurement
    EXPECT_FALSE(offset.readOffset().measured);
    board.fpga().setRegisterToolFault(sim::RegisterToolFault::Garbage);
    const OffsetReading failed = offset.readOffset();
    EXPECT_EQ(failed.offsetNs, 0);
    EXPECT_FALSE(failed.measured);
}

TEST_F(CycleTest, RelayResetFiveSecondsAfterAnEvent)
{
    RelayReset relay(registers);
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
    ClientIndicator client(board, gpio, registers);
    for (auto [responses, flash] : {std::pair{0, false}, {256, false}, {65535, true}, {1, true}}) {
        board.tools().clearCommands();
        board.fpga().setRegister(26, static_cast<std::uint64_t>(responses));
        client.switchOff();
        client.flashOnResponses();
        EXPECT_EQ(count("echo 1 > /sys/class/gpio/gpio71/value"), flash ? 1u : 0u) << responses;
        EXPECT_EQ(lines().back(), "echo 0 > /sys/class/gpio/gpio71/value");
    }
}

// The board claims no more than the pulse and the clock vouch for.
class ClaimsTest : public CycleTest {
  protected:
    ClaimsTest()
    {
        cycle.setup();
        board.fpga().setRegister(2, 0x19);
        cycles(60);
        EXPECT_TRUE(cycle.steeringEnabled());
        board.tools().clearCommands();
    }
    static constexpr const char *kOpenOne = "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 10 1\n";
};

TEST_F(ClaimsTest, PulsesThatStopWithdrawTheSteering)
{
    board.gpio().setInput(19, 1); // a pulse, then none
    EXPECT_TRUE(cycle.poll());
    board.gpio().setInput(19, 0);
    pollFor(2'900'000);
    EXPECT_TRUE(cycle.steeringEnabled());
    pollFor(300'000); // 3 s without a pulse
    EXPECT_FALSE(cycle.steeringEnabled());
    EXPECT_EQ(said("zarvent: no pulse from the FPGA for 3 s"), 1u);
    pollFor(5'000'000);
    EXPECT_EQ(count("./spiWrite -m 1 -l 3 -d 1 1 24 0"), 1u); // the sync bit, once
    EXPECT_NE(metrics().find("\nzarvent_pulse 0\n"), std::string::npos);
    EXPECT_NE(metrics().find("\nzarvent_steering 0\n"), std::string::npos);

    board.gpio().setPulse(19, 100000);
    pollFor(2'000'000);
    EXPECT_EQ(said("zarvent: the FPGA's pulse is back after "), 1u);
    EXPECT_EQ(said("zarvent: no pulse from the FPGA"), 1u);
    EXPECT_FALSE(cycle.steeringEnabled()); // qualifies afresh
    EXPECT_NE(metrics().find("\nzarvent_pulse 1\n"), std::string::npos);
}

TEST_F(ClaimsTest, ClockOffThePulseHandsNoCountOver)
{
    const std::size_t words = board.gpio().dacWords().size();
    cycles(3, 400'000);
    EXPECT_EQ(count(kOpenOne), 0u);
    EXPECT_EQ(board.gpio().dacWords().size(), words + 6); // steering goes on
    EXPECT_EQ(said("the clock read at the pulse lies 400 ms from the top of a second"), 1u);
    EXPECT_NE(metrics().find("\nzarvent_handovers_skipped_total 3\n"), std::string::npos);
    cycles(1, 600'000); // as far off before the second
    EXPECT_EQ(count(kOpenOne), 0u);
    cycles(1, 99'000);
    EXPECT_EQ(count(kOpenOne), 1u);
    cycles(1, 200'000); // flapping at the edge: the same episode
    cycles(61);
    EXPECT_EQ(said("from the top of a second"), 1u);
    EXPECT_EQ(said("the clock has agreed with the pulse for a minute (5 hand-overs skipped)"), 1u);
}

// ntptime's first and third lines are reported, and stop nothing.
TEST_F(ClaimsTest, KernelClockAndItsTaiOffsetAreReported)
{
    std::string text = ntptimeAt((kStart + 100) * kSecondUs);
    text.replace(text.find("code 0 (OK)"), 11, "code 5 (ERROR)");
    text.replace(text.find("TAI offset 37"), 13, "TAI offset 36");
    board.tools().onCommand("ntptime", text);
    cycles(2);
    EXPECT_EQ(count(kOpenOne), 1u);
    EXPECT_EQ(said("zarvent: ntptime reports the kernel clock unsynchronised\n"), 1u);
    EXPECT_EQ(said("the kernel's TAI offset (36 s) differs from the leap-second list's (37 s)"),
              1u);
    EXPECT_NE(metrics().find("\nzarvent_kernel_clock_synchronised 0\n"), std::string::npos);
    EXPECT_NE(metrics().find("\nzarvent_kernel_tai_offset_seconds 36\n"), std::string::npos);
    board.tools().clearRules();
    cycles(61);
    EXPECT_EQ(said("ntptime reports the kernel clock synchronised again"), 1u);
    EXPECT_EQ(said("TAI offset agrees with the leap-second list's again"), 1u);
}

// At a stop, once every thread has ended: the sync and reference-valid bits
// cleared, a relay pulse cut short taken back, the other bits kept, no
// metrics left.
TEST_F(ClaimsTest, StopWithdrawsTheClaims)
{
    board.fpga().setRegister(28, 1);
    cycles(1);
    board.fpga().setRegister(28, 0);
    board.tools().failCommand("./spiWrite -m 1 -l 3 -d 1 2 25 0"); // the pulse's clear
    cycles(5);
    ASSERT_EQ(board.fpga().registerValue(2), 27u);
    cycle.releaseClaims();
    EXPECT_EQ(board.fpga().registerValue(2), 24u);
    EXPECT_EQ(board.fpga().registerValue(1), 24u);
    EXPECT_FALSE(board.files().exists("/ramcache/zarvent/metrics/zarvent.prom"));
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
        steering.steer(100, CycleTime{unixSecond, *board.localTime(unixSecond)});
    }
    std::size_t chartFiles()
    {
        std::size_t n = 0;
        for (const auto &name : board.listDirectory("/ramcache/zarvent"))
            n += isChartFileName(name);
        return n;
    }
    // The code of the last DAC word, which must be the oscillator's.
    unsigned lastCode() const
    {
        const unsigned word = board.gpio().dacWords().back().word;
        EXPECT_EQ(word >> 20, 3u);
        return (word >> 4) & 0xFFFF;
    }
    Steering steering{board, registers, dac};
};

TEST_F(SteeringTest, CentreFromItsFileWithARangeCheck)
{
    // 100 ns from a fresh start: S 5, integral 105, difference -95.
    board.files().writeFile("/usr/bin/Zarvent/dac_voltage", "40000\n");
    steerAt(kStart);
    EXPECT_EQ(lastCode(), 40007u);
    // Out of range: the previous centre stays. S 9, integral 214, difference -91.
    board.files().writeFile("/usr/bin/Zarvent/dac_voltage", "-3000000000\n");
    steerAt(kStart + 1);
    EXPECT_EQ(lastCode(), 40009u);
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
    for (int i = 0; i < 960 + 5; ++i) {
        std::tm t = *board.localTime(kStart - 86400 + i * 60);
        board.files().writeFile(chartFileName(t), "[new Date(\"\"), 0],\n");
    }
    board.files().writeFile("/ramcache/zarvent/ptp_data_0000_00_01", "");
    steerAt(kStart);
    EXPECT_EQ(chartFiles(), 960u);
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
