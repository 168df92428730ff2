// The supervision thread: reference indication and its log, the alarm, the
// antenna feed, the factory-default button and the leap-second list.
#include "support/fixture.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "supervision/supervision_loop.h"
#include "supervision/antenna.h"
#include "supervision/factory.h"
#include "supervision/leap.h"

namespace zarvent::test {
namespace {

constexpr const char *kLog = "/ramcache/zarvent/errorlog.log";

class SupervisionTest : public BoardTest {
  protected:
    SupervisionTest()
    {
        for (int line : {79, 86, 87, 88})
            board.gpio().provideLine(line, false, 1);
        board.fpga().setConfigured(true);
        shared.setCycleTime(*board.localTime(kStart));
        board.files().writeFile("/leap-seconds.list", "3692217600\t37\t# 1 Jan 2017\n");
        supervision.setup();
        board.tools().clearCommands();
    }
    std::size_t count(const std::string &line) const
    {
        return board.tools().countCommand(line);
    }
    static std::string echo(int line, int level)
    {
        return "echo " + std::to_string(level) + " > /sys/class/gpio/gpio" + std::to_string(line) +
               "/value";
    }

    SupervisionLoop supervision{board, runner, gpio, registers, shared};
};

TEST_F(SupervisionTest, SetupLeavesTheDacLinesAlone)
{
    EXPECT_EQ(board.gpio().direction(78), "out");
    EXPECT_EQ(board.gpio().direction(88), "in");
    for (int line : {96, 106, 118})
        EXPECT_FALSE(board.gpio().exported(line)) << line;
    EXPECT_EQ(shared.taiOffset.load(), 37);
}

TEST_F(SupervisionTest, ReferenceChangesAreLogged)
{
    supervision.pass(); // the first pass always logs
    supervision.pass();
    board.ntp().setPeer(sim::Peer::Pps);
    supervision.pass();
    EXPECT_EQ(board.gpio().level(72), 0);
    EXPECT_EQ(board.gpio().level(73), 1);
    board.ntp().setPeer(sim::Peer::Both); // both listed: the system peer counts
    std::tm march{};
    march.tm_year = 126;
    march.tm_mon = 2;
    march.tm_mday = 7;
    march.tm_hour = 9;
    march.tm_min = 5;
    march.tm_sec = 12;
    shared.setCycleTime(march);
    supervision.pass();
    EXPECT_EQ(board.gpio().level(72), 1);
    EXPECT_EQ(board.gpio().level(73), 1);
    EXPECT_EQ(shared.reference, Reference::SystemPeer);
    EXPECT_EQ(file(kLog), "16.11 13:27:00 Reference time: GPS+GLONASS\n"
                          "16.11 13:27:00 Reference time: GPS+GLONASS 1PPS\n"
                          "07.03 09:05:12 Reference time: GPS+GLONASS\n");
}

TEST_F(SupervisionTest, ErrorLogIsBounded)
{
    const std::string full(errorlog::kLimit, 'x');
    board.files().writeFile(kLog, full);
    supervision.pass();
    EXPECT_EQ(file("/ramcache/zarvent/errorlog.log.1"), full);
    EXPECT_EQ(file(kLog), "16.11 13:27:00 Reference time: GPS+GLONASS\n");
}

TEST_F(SupervisionTest, ReferenceValidBitAndAlarm)
{
    const std::string start = shared.event().time;
    board.fpga().setRegister(2, 0x1E);
    board.ntp().setPeer(sim::Peer::None);
    supervision.pass(); // no reference: the loop clears the bit, the alarm begins
    EXPECT_EQ(registerWrites(), (std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 2 30 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 2 30 0"}));
    EXPECT_TRUE(shared.alarm);
    EXPECT_EQ(board.gpio().level(76), 1);
    EXPECT_EQ(board.gpio().level(77), 0);
    const std::string alarmAt = shared.event().time;
    EXPECT_NE(alarmAt, start);

    board.tools().clearCommands();
    board.clock().setNowUs(board.clock().nowUs() + 5'000'000);
    supervision.pass(); // still in alarm: the time stays, the bit is left alone
    EXPECT_EQ(shared.event().time, alarmAt);
    EXPECT_EQ(registerWrites().size(), 1u);

    board.ntp().setPeer(sim::Peer::System);
    board.gpio().setInput(176, 0); // a GPS peer, but the alarm input low
    board.tools().clearCommands();
    supervision.pass();
    supervision.pass();
    EXPECT_EQ(registerWrites(), (std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 2 31 0",
                                                          "./spiWrite -m 1 -l 3 -d 1 2 31 0"}));
    EXPECT_TRUE(shared.alarm);

    board.gpio().setInput(176, 1);
    board.clock().setNowUs(board.clock().nowUs() + 5'000'000);
    supervision.pass(); // clear: the time the alarm ended
    EXPECT_FALSE(shared.alarm);
    EXPECT_NE(shared.event().time, alarmAt);
    EXPECT_EQ(board.gpio().level(76), 0);
    EXPECT_EQ(board.gpio().level(77), 1);
}

// A peer query that gives no answer (killed at its deadline) is unknown: the
// last known reference stands through one pass of hung queries, with its
// indicator, its bit and no alarm, and is lost in the next. A slow one that
// answers is an answer; grep finding nothing is one too, no failure.
TEST_F(SupervisionTest, HungPeerQueriesAreUnknownNotLost)
{
    board.fpga().setRegister(2, 0x00);
    supervision.pass();
    ASSERT_EQ(board.fpga().registerValue(2), 1u);
    board.tools().setToolFault("ntpq", sim::ToolFault::Hang);
    supervision.pass(); // four queries killed at 30 s each
    EXPECT_EQ(shared.reference, Reference::SystemPeer);
    EXPECT_FALSE(shared.alarm);
    EXPECT_EQ(board.fpga().registerValue(2), 1u);
    EXPECT_EQ(board.gpio().level(73), 1);
    supervision.pass();
    EXPECT_EQ(shared.reference, Reference::None);
    EXPECT_TRUE(shared.alarm);
    EXPECT_EQ(board.fpga().registerValue(2), 0u);

    board.tools().setToolFault("ntpq", sim::ToolFault::VerySlow); // 10 s a query
    board.ntp().setPeer(sim::Peer::Pps);
    supervision.pass();
    EXPECT_EQ(shared.reference, Reference::PpsPeer);
    EXPECT_FALSE(shared.alarm);
    EXPECT_EQ(runner.toolCounts().at("ntpq").failed, 0u);
}

TEST_F(SupervisionTest, FirstClearPassKeepsTheStartTime)
{
    shared.setEvent("Nov 16 2026 13:26:58.000");
    supervision.pass();
    EXPECT_EQ(shared.event().time, "13:26:58");
    EXPECT_FALSE(shared.alarm);
}

TEST_F(SupervisionTest, IndicatorTestHoldsThePass)
{
    board.gpio().queueReads(79, {0, 0, 0});
    supervision.pass();
    for (int line : {70, 71, 72, 73, 74, 75, 76, 77})
        EXPECT_EQ(count(echo(line, 1)),
                  line == 72 || line == 73 || line == 75 || line == 77 ? 4u : 3u)
            << line;
    // A line that cannot be read is no test request.
    board.tools().clearCommands();
    board.files().failOpen("/sys/class/gpio/gpio79/value", EIO);
    supervision.pass();
    EXPECT_EQ(count(echo(70, 1)), 0u);
}

TEST_F(SupervisionTest, AntennaCodesAndHoldOff)
{
    AntennaMonitor antenna(board, gpio, shared);
    struct {
        int l86, l87, code, l74, l75;
    } cases[] = {{1, 1, 7, 0, 1}, {0, 1, 6, 1, 0}};
    for (const auto &c : cases) {
        board.gpio().setInput(86, c.l86);
        board.gpio().setInput(87, c.l87);
        antenna.check();
        EXPECT_EQ(shared.antennaCode, c.code);
        EXPECT_EQ(board.gpio().level(74), c.l74);
        EXPECT_EQ(board.gpio().level(75), c.l75);
        EXPECT_EQ(board.gpio().level(85), 1);
    }
    board.gpio().setInput(86, 1);
    board.gpio().setInput(87, 0); // a short at second 100
    board.clock().setNowUs(100'000'000);
    antenna.check();
    EXPECT_EQ(shared.antennaCode, 5);
    EXPECT_EQ(board.gpio().level(85), 0);
    board.clock().setNowUs(104'900'000);
    antenna.check();
    EXPECT_EQ(shared.antennaCode, 1); // held off: neither Ok, Off nor Short
    EXPECT_EQ(board.gpio().level(85), 0);
    board.clock().setNowUs(105'000'000);
    antenna.check();
    EXPECT_EQ(board.gpio().level(85), 1);
}

TEST_F(SupervisionTest, FactoryDefaultOnlyForAPressedButton)
{
    FactoryDefault factory(board, runner, gpio);
    board.files().writeFile("/etc/ntp.conf", "old ntp\n");
    board.files().writeFile("/usr/bin/Zarvent/defcnfg", "factory ntp\n");
    board.files().writeFile("/usr/bin/Zarvent/resolv.conf", "nameserver 192.168.2.1\n");
    board.files().writeFile("/usr/bin/Zarvent/interfaces", "iface eth0\n");
    EXPECT_FALSE(factory.restoreOnPress());
    board.files().failOpen("/sys/class/gpio/gpio88/value", EIO);
    EXPECT_FALSE(factory.restoreOnPress());
    EXPECT_TRUE(board.tools().commands().empty());

    board.files().failOpen("/sys/class/gpio/gpio88/value", 0);
    board.gpio().setInput(88, 0);
    EXPECT_TRUE(factory.restoreOnPress());
    // The indicator is on while the files are restored.
    EXPECT_EQ(lines().front(), echo(78, 1));
    EXPECT_EQ(lines().back(), echo(78, 0));
    const auto cmds = board.tools().commands();
    EXPECT_GE(cmds.back().timeUs - cmds.front().timeUs, 1'000'000);
    EXPECT_EQ(file("/etc/ntp.conf"), "factory ntp\n");
    EXPECT_EQ(file("/etc/ntp.conf.bak"), "old ntp\n");
    EXPECT_EQ(file("/etc/network/interfaces"), "iface eth0\n");
    EXPECT_EQ(board.tools().eth0Address(), "192.168.2.100/24");
}

TEST_F(SupervisionTest, LeapSecondList)
{
    auto leap = [&](const std::string &list) {
        board.files().writeFile("/leap-seconds.list", list);
        return readTaiOffset(board, runner);
    };
    EXPECT_EQ(leap("#$\t3676924800\n3644697600\t36\t# 1 Jul 2015\n3692217600\t37\t# 1 Jan "
                   "2017\n#@\t3928521600\n#h\t0 0 0 0 0\n"),
              37);
    std::string longList;
    for (int i = 0; i < 237; ++i)
        longList += "3644697600\t36\t# 1 Jul 2015\n";
    EXPECT_EQ(leap(longList + "3692217600\t0x25\t# line 238\n3692217600\t99\t# line 239\n"), 37);
    EXPECT_EQ(leap("# only comments\n#\n"), 0);
    EXPECT_EQ(leap("3692217600\tnone\t# no offset\n"), 0);
    EXPECT_FALSE(board.files().exists("temp"));
    board.files().setReadOnly("/usr/bin/Zarvent", true);
    EXPECT_EQ(leap("3692217600\t37\t# 1 Jan 2017\n"), -1);
    board.files().setReadOnly("/usr/bin/Zarvent", false);
    board.files().failOpen("/leap-seconds.list", ENOENT);
    EXPECT_EQ(readTaiOffset(board, runner), -1);
    board.files().failOpen("/leap-seconds.list", 0);
    // Debian's copy separates its columns with blanks.
    std::ifstream debian("/usr/share/zoneinfo/leap-seconds.list");
    if (debian) {
        std::stringstream text;
        text << debian.rdbuf();
        EXPECT_EQ(leap(text.str()), 37);
    }
}

} // namespace
} // namespace zarvent::test
