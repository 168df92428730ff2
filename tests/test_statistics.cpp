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
    auto history = std::make_unique<CounterHistory>();
    CounterHistory &req = *history;
    // 12:34:00 stores the readings of 12:33:01 to 12:34:00.
    req.add(1000, at(12, 33, 0));
    for (int s = 1; s < 60; ++s)
        req.add(1, at(12, 33, s));
    req.add(100, at(12, 34, 0));
    EXPECT_EQ(req.minutes[754], 159u);
    EXPECT_FLOAT_EQ(req.minuteSum, 159.0f);

    // 05:00:00: hour 4 (slots 240 to 299) into ReqHour[5] and the rolling sum.
    for (std::size_t i = 240; i < 300; ++i)
        req.minutes[i] = i - 239;
    req.minutes[239] = 1000000;
    req.add(0, at(5, 0, 0));
    EXPECT_EQ(req.hours[5], 1830u);
    EXPECT_FLOAT_EQ(req.hourSum, 1830.0f);

    // 00:10:00: the rolling hour wraps from slot 0 back to slot 1390.
    req.minutes.fill(1);
    req.minutes[1389] = 1000;
    req.add(0, at(0, 10, 0));
    EXPECT_FLOAT_EQ(req.hourSum, 60.0f);

    // 00:00:00 on the 1st: hour 23 first, then the day of all 24 hours.
    req.hours.fill(10);
    for (std::size_t i = 1380; i < 1440; ++i)
        req.minutes[i] = 2;
    req.add(0, at(0, 0, 0, 1));
    EXPECT_EQ(req.hours[0], 120u);
    EXPECT_EQ(req.days[1], 23u * 10 + 120);
}

class StatisticsTest : public BoardTest {
  protected:
    StatisticsTest()
    {
        board.files().writeFile("/usr/bin/Zarvent/enable.cfg", "1\n");
    }
    CycleTime cycleAt(std::int64_t second)
    {
        return {second, *board.localTime(second)};
    }
    StatCapture capture{board, runner, registers};
    PacketCounters counters{board, registers, capture};
};

TEST_F(StatisticsTest, MissingReadingCountsAsZero)
{
    board.files().writeFile("/usr/bin/Zarvent/enable.cfg", "0\n");
    const PacketHistory &history = counters.history();
    board.fpga().setRegister(26, 10);
    counters.readCounters(cycleAt(kStart + 6));
    board.fpga().setRegister(26, 65535);
    board.fpga().setRegister(24, 41);
    counters.readCounters(cycleAt(kStart + 7));
    EXPECT_EQ(history.responses.seconds[7], 0u);
    EXPECT_FLOAT_EQ(history.responses.average, 2.5f);
    EXPECT_EQ(history.requests.seconds[7], 41u); // read with the flag off too
    EXPECT_EQ(board.spi().exchanges(), 0);
    board.fpga().setRegisterToolFault(sim::RegisterToolFault::Garbage);
    counters.readCounters(cycleAt(kStart + 8));
    EXPECT_EQ(history.requests.seconds[8], 0u);
}

TEST_F(StatisticsTest, ExchangeEverySecondCycle)
{
    board.fpga().setRegister(48, 0x10);
    board.fpga().setRegister(26, 0x1234);
    board.fpga().setRegister(24, 0x0129);
    capture.capture();
    EXPECT_EQ(board.spi().exchanges(), 0);
    EXPECT_EQ(registerWrites(), std::vector<std::string>{"./spiWrite -m 1 -l 3 -d 1 1 20 0"});
    capture.capture();
    EXPECT_EQ(board.spi().exchanges(), 1);
    capture.capture();
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
        Registers regs(failing, r);
        StatCapture c(failing, r, regs);
        c.capture();
        EXPECT_THROW(c.capture(), sim::SimulationEnded);
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
    capture.capture();
    capture.capture();
    EXPECT_EQ(board.spi().exchanges(), 1);
    EXPECT_FALSE(board.files().exists("/ftpdir/lock"));
    capture.capture(); // the count starts afresh after the lost exchange
    EXPECT_EQ(board.spi().exchanges(), 1);
    capture.capture();
    EXPECT_EQ(board.spi().exchanges(), 2);
}

class PageTest : public StatisticsTest {
  protected:
    PageTest()
    {
        input.time = {kStart + 46, at(13, 27, 46)};
        input.now = splitDateTime("Nov 16 2026 13:27:46.121");
        input.offsetNs = -50;
        input.blockJitterNs = 12;
        shared.setEvent("Nov 16 2026 13:27:00.004");
        shared.reference = Reference::SystemPeer;
        shared.antennaCode = 7;
        CounterHistory &req = packets->requests;
        CounterHistory &resp = packets->responses;
        req.seconds[45] = 41;
        resp.seconds[45] = 38;
        req.average = 40.5f;
        resp.average = 37.25f;
        req.minutes[807] = 0x100000960; // only the low 32 bits show
        resp.minutes[807] = 2300;
        req.minuteSum = 2410.0f;
        resp.minuteSum = 2290.0f;
        req.hours[13] = 5000000000;
        resp.hours[13] = 4;
        req.hourSum = 4858.0f;
        resp.hourSum = 4582.0f;
        req.days[16] = 7;
        resp.days[16] = 8;
    }
    std::string writePage()
    {
        page.write(input, *packets);
        input.blockJitterNs.reset();
        return file("/ramcache/zarvent/ntp_data.txt");
    }
    PageInput input;
    std::unique_ptr<PacketHistory> packets = std::make_unique<PacketHistory>();
    StatusPage page{board, runner, shared};
};

TEST_F(PageTest, PageAsTheWebInterfaceReadsIt)
{
    board.files().writeFile("/usr/bin/Zarvent/nmea_emul_flag.txt", "1abc\n");
    EXPECT_EQ(writePage(),
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
}

TEST_F(PageTest, MeanAndJitterWhileSteering)
{
    shared.alarm = true;
    input.time = {kStart + 60, at(13, 28, 0)};
    packets->requests.seconds[59] = 17;
    input.steering = true;
    const std::string text = writePage();
    EXPECT_NE(text.find("<b>Alarm at:</b> \t<b>Date:</b>"), std::string::npos);
    EXPECT_NE(text.find("<b>Request per Second:</b>\t17\t"), std::string::npos);
    EXPECT_NE(text.find("<b>Mean Offset [ns]:</b>\t0\n<b>Jitter [ns]:</b>\t\t2\n"),
              std::string::npos);
    EXPECT_NE(text.find("<b>GPS Emulation:</b>\tOff\n"), std::string::npos);
    // A flag file without a number is not "on".
    board.files().writeFile("/usr/bin/Zarvent/nmea_emul_flag.txt", "x\n");
    EXPECT_NE(writePage().find("<b>GPS Emulation:</b>\tOff\n"), std::string::npos);
}

// The filter rests while the oscillator is not steered: the first steered
// page starts it from nought, and the jitter shown until then is the offset
// readout's.
TEST_F(PageTest, FilterStartsWithSteering)
{
    input.offsetNs = -1000000;
    EXPECT_NE(writePage().find("<b>Mean Offset [ns]:</b>\t0\n<b>Jitter [ns]:</b>\t\t12\n"),
              std::string::npos);
    EXPECT_NE(writePage().find("<b>Jitter [ns]:</b>\t\t12\n"), std::string::npos);
    input.steering = true;
    EXPECT_NE(writePage().find("<b>Mean Offset [ns]:</b>\t-3131\n<b>Jitter [ns]:</b>\t\t55786\n"),
              std::string::npos);
    input.steering = false; // the filter's jitter stays until a block ends
    EXPECT_NE(writePage().find("<b>Jitter [ns]:</b>\t\t55786\n"), std::string::npos);
    input.blockJitterNs = 40;
    EXPECT_NE(writePage().find("<b>Jitter [ns]:</b>\t\t40\n"), std::string::npos);
}

// A RAM disk out of inodes: the new page cannot be made, the old one stays
// whole for the web interface.
TEST_F(PageTest, PageThatCannotBeMade)
{
    input.steering = true;
    board.files().writeFile("/ramcache/zarvent/ntp_data.txt", "the last page\n");
    board.files().writeFile("/ramcache/zarvent/lock", "");
    board.files().setRamDiskFull(false, true);
    EXPECT_EQ(writePage(), "the last page\n");
    EXPECT_EQ(board.process().errorOutput(), "Cannot open file\n: No space left on device\n");
    EXPECT_TRUE(board.files().exists("/ramcache/zarvent/lock"));
}

} // namespace
} // namespace zarvent::test
