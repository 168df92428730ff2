// Packet counters, the SPI capture and its stat file, the status page.
#include "support/fixture.h"

#include "statistics/capture.h"
#include "statistics/counters.h"
#include "statistics/status_page.h"

namespace zarvent::test {
namespace {

std::tm at(int hour, int minute, int second, int day = 16)
{
    std::tm t{};
    t.tm_year = 126;
    t.tm_mon = 10;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    return t;
}

TEST(Counters, MinuteHourAndDayTotals)
{
    auto out = std::make_unique<StatOut>();
    const CounterFields req = requestFields(*out);
    // 12:34:00 stores the readings of 12:33:01 to 12:34:00.
    aggregate(req, 1000, at(12, 33, 0));
    for (int s = 1; s < 60; ++s)
        aggregate(req, 1, at(12, 33, s));
    aggregate(req, 100, at(12, 34, 0));
    EXPECT_EQ(out->ReqMin[754], 159u);
    EXPECT_FLOAT_EQ(out->ReqMinSum, 159.0f);

    // 05:00:00: hour 4 (slots 240 to 299) into ReqHour[5] and the rolling sum.
    for (int i = 240; i < 300; ++i)
        out->ReqMin[i] = static_cast<std::uint64_t>(i - 239);
    out->ReqMin[239] = 1000000;
    aggregate(req, 0, at(5, 0, 0));
    EXPECT_EQ(out->ReqHour[5], 1830u);
    EXPECT_FLOAT_EQ(out->ReqHourSum, 1830.0f);

    // 00:10:00: the rolling hour wraps from slot 0 back to slot 1390.
    for (auto &slot : out->ReqMin)
        slot = 1;
    out->ReqMin[1389] = 1000;
    aggregate(req, 0, at(0, 10, 0));
    EXPECT_FLOAT_EQ(out->ReqHourSum, 60.0f);

    // 00:00:00 on the 1st: hour 23 first, then the day of all 24 hours.
    for (auto &slot : out->ReqHour)
        slot = 10;
    for (int i = 1380; i < 1440; ++i)
        out->ReqMin[i] = 2;
    aggregate(req, 0, at(0, 0, 0, 1));
    EXPECT_EQ(out->ReqHour[0], 120u);
    EXPECT_EQ(out->ReqDay[1], 23u * 10 + 120);
}

class StatisticsTest : public BoardTest {
  protected:
    StatisticsTest()
    {
        board.files().writeFile("/usr/bin/Zarvent/enable.cfg", "1\n");
    }
    StatCapture capture{board, runner, registers};
    PacketCounters counters{board, registers, shared, capture};
    StatusPage page{board, runner, shared};
};

TEST_F(StatisticsTest, MissingReadingCountsAsZero)
{
    board.files().writeFile("/usr/bin/Zarvent/enable.cfg", "0\n");
    shared.Stat_Out.RespAvg = 10.0f;
    board.fpga().setRegister(26, 65535);
    board.fpga().setRegister(24, 41);
    counters.Stat_read(kStart + 7);
    EXPECT_EQ(shared.Stat_Out.RespSec[7], 0u);
    EXPECT_FLOAT_EQ(shared.Stat_Out.RespAvg, 5.0f);
    EXPECT_EQ(shared.Stat_Out.ReqSec[7], 41u); // read with the flag off too
    EXPECT_EQ(board.spi().exchanges(), 0);
    board.fpga().setRegisterToolFault(sim::RegisterToolFault::Garbage);
    counters.Stat_read(kStart + 8);
    EXPECT_EQ(shared.Stat_Out.ReqSec[8], 0u);
}

TEST_F(StatisticsTest, ExchangeEverySecondCycle)
{
    board.fpga().setRegister(48, 0x10);
    board.fpga().setRegister(26, 0x1234);
    board.fpga().setRegister(24, 0x0129);
    capture.Stat_capture();
    EXPECT_EQ(board.spi().exchanges(), 0);
    EXPECT_EQ(registerWrites(), std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 1 20 0"});
    capture.Stat_capture();
    EXPECT_EQ(board.spi().exchanges(), 1);
    capture.Stat_capture();
    EXPECT_EQ(board.spi().exchanges(), 1);

    const sim::SpiRecord spi = board.spi().last();
    EXPECT_EQ(spi.len, 1410u);
    EXPECT_EQ(spi.speedHz, 0u);
    EXPECT_EQ(spi.bitsPerWord, 8);
    EXPECT_EQ(spi.csChange, 0);
    EXPECT_EQ(spi.txHead[0], 0x00);
    EXPECT_EQ(spi.txHead[1], 0x31);
    EXPECT_TRUE(spi.txRestZero);
    EXPECT_EQ(spi.modeWritten, 1);

    const std::string stat = file("/ftpdir/stat.txt");
    EXPECT_EQ(stat.substr(0, 16), " time2*\t     t1\n");
    EXPECT_EQ(stat.substr(stat.size() - 6), "52\n41\n"); // the counters' low bytes
    EXPECT_FALSE(board.files().exists("/ftpdir/lock"));
    EXPECT_EQ(board.descriptors().openCount(), 0);
}

TEST_F(StatisticsTest, DeviceFailureEndsTheDaemonWithThePreviousStatFile)
{
    const std::pair<sim::SpiOp, const char *> failures[] = {
        {sim::SpiOp::Open, "can't open device: "},
        {sim::SpiOp::WriteMode, "can't set spi mode: "},
        {sim::SpiOp::ReadMode, "can't get spi mode: "},
        {sim::SpiOp::WriteBits, "can't set bits per word: "},
        {sim::SpiOp::ReadBits, "can't get bits per word: "},
        {sim::SpiOp::Message, "can't send spi message: "},
    };
    for (const auto &[op, message] : failures) {
        sim::VirtualBoard failing(kStart);
        failing.boardTree();
        failing.files().writeFile("/ftpdir/stat.txt", "previous\n");
        failing.spi().fail(op);
        Runner r(failing);
        SharedState s;
        Registers regs(failing, r, s);
        StatCapture c(failing, r, regs);
        c.Stat_capture();
        EXPECT_THROW(c.Stat_capture(), sim::SimulationEnded);
        EXPECT_TRUE(failing.process().aborted());
        EXPECT_EQ(failing.process().errorOutput().rfind(message, 0), 0u)
            << failing.process().errorOutput();
        EXPECT_EQ(failing.files().readFile("/ftpdir/stat.txt"), "previous\n");
        EXPECT_TRUE(failing.files().exists("/ftpdir/lock"));
    }
}

TEST_F(StatisticsTest, StatFileThatCannotBeOpenedLosesOneExchange)
{
    board.files().failOpen("/ftpdir/stat.txt", EACCES);
    capture.Stat_capture();
    capture.Stat_capture();
    EXPECT_EQ(board.spi().exchanges(), 1);
    EXPECT_FALSE(board.files().exists("/ftpdir/lock"));
    EXPECT_EQ(capture.phase(), 0);
}

class PageTest : public StatisticsTest {
  protected:
    PageTest()
    {
        shared.put(co::kNow, std::string("Nov 16 2026 13:27:46.121") + '\0');
        shared.put(co::kEvent, std::string("Nov 16 2026 13:27:00.004") + '\0');
        shared.put(co::kRefName, std::string("GPS+GLONASS") + '\0');
        shared.put(co::kOffset, std::string("-50") + '\0');
        shared.setByte(co::kAntenna, 7);
        shared.Jitter = 12;
        shared.setTimeinfo(at(13, 27, 46));
        StatOut &st = shared.Stat_Out;
        st.ReqSec[45] = 41;
        st.RespSec[45] = 38;
        st.ReqAvg = 40.5f;
        st.RespAvg = 37.25f;
        st.ReqMin[807] = 0x100000960; // only the low 32 bits show
        st.RespMin[807] = 2300;
        st.ReqMinSum = 2410.0f;
        st.RespMinSum = 2290.0f;
        st.ReqHour[13] = 5000000000;
        st.RespHour[13] = 4;
        st.ReqHourSum = 4858.0f;
        st.RespHourSum = 4582.0f;
        st.ReqDay[16] = 7;
        st.RespDay[16] = 8;
    }
};

TEST_F(PageTest, PageAsTheWebInterfaceReadsIt)
{
    board.files().writeFile("/usr/bin/Zarvent/nmea_emul_flag.txt", "1abc\n");
    page.FileWrite();
    EXPECT_EQ(file("/ramcache/zarvent/ntp_data.txt"),
              "<b>UTC</b>\t\t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:27:46\n"
              "<b>Current Offset [ns]:</b>\t-50\n<b>Mean Offset [ns]:</b>\t0\n"
              "<b>Jitter [ns]:</b>\t\t12\n<b>Reference time:</b>    GPS+GLONASS\n"
              "<b>Uptime from:</b> \t<b>Date:</b>\tNov 16 2026\n\t\t<b>Time:</b>\t13:27:00\n"
              "\n<b>PTP Packets:\t\tLast\tAverage</b>\n"
              "<b>Request per Second:</b>\t41\t40.50\n<b>Response per Second:</b>\t38\t37.25\n"
              "<b>Request per Minute:</b>\t2400\t2410.00\n"
              "<b>Response per Minute:</b>\t2300\t2290.00\n"
              "<b>Request per Hour:</b>\t5000000000\t4858.00\n"
              "<b>Response per Hour:</b>\t4\t4582.00\n"
              "<b>Request per Day:</b>\t7\n<b>Response per Day:</b>\t8\n"
              "\n<b>Antenna:</b> Ok\n<b>GPS Emulation:</b>\tOn\nNov 16 2026\n13:27:46\n");
    EXPECT_FALSE(board.files().exists("/ramcache/zarvent/lock"));
    EXPECT_EQ(page.filter().z_prev, 0.0f); // not steering: the filter rests
}

TEST_F(PageTest, MeanAndJitterWhileSteering)
{
    shared.Sync_En = 1;
    shared.Alarm = 1;
    shared.setTimeinfo(at(13, 28, 0));
    shared.Stat_Out.ReqSec[59] = 17;
    page.FileWrite();
    const std::string text = file("/ramcache/zarvent/ntp_data.txt");
    EXPECT_NE(text.find("<b>Alarm at:</b> \t<b>Date:</b>"), std::string::npos);
    EXPECT_NE(text.find("<b>Request per Second:</b>\t17\t"), std::string::npos);
    EXPECT_NE(text.find("<b>Mean Offset [ns]:</b>\t0\n<b>Jitter [ns]:</b>\t\t2\n"),
              std::string::npos);
    EXPECT_EQ(shared.Jitter, 2);
    EXPECT_NE(text.find("<b>GPS Emulation:</b>\tOff\n"), std::string::npos);
    // A flag file without a number is not "on".
    board.files().writeFile("/usr/bin/Zarvent/nmea_emul_flag.txt", "x\n");
    page.FileWrite();
    EXPECT_NE(file("/ramcache/zarvent/ntp_data.txt").find("<b>GPS Emulation:</b>\tOff\n"),
              std::string::npos);
}

// A RAM disk out of inodes: the new page cannot be made, the old one stays
// whole for the web interface.
TEST_F(PageTest, PageThatCannotBeMade)
{
    shared.Sync_En = 1;
    board.files().writeFile("/ramcache/zarvent/ntp_data.txt", "the last page\n");
    board.files().writeFile("/ramcache/zarvent/lock", "");
    board.files().setRamDiskFull(false, true);
    page.FileWrite();
    EXPECT_EQ(board.process().errorOutput(), "Cannot open file\n: No space left on device\n");
    EXPECT_EQ(file("/ramcache/zarvent/ntp_data.txt"), "the last page\n");
    EXPECT_TRUE(board.files().exists("/ramcache/zarvent/lock"));
    EXPECT_EQ(page.filter().z_prev, 0.0f);
    EXPECT_EQ(shared.Jitter, 12);
}

} // namespace
} // namespace zarvent::test
