// Start-up, the FPGA thread, and the three threads running at once.
#include "support/fixture.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "daemon/daemon.h"
#include "board_model.h"
#include "fpga/fpga_loader.h"
#include "scheduler.h"

namespace zarvent::test {
namespace {

using DaemonTest = BoardTest;

TEST_F(DaemonTest, RamDiskAndMarkers)
{
    board.clock().setNowUs((kStart + 45 * 86400 + 37979) * 1'000'000); // 2026-12-31 23:59:59
    board.files().writeFile("/ramcache/zarvent/ntp.drift", "old drift\n");
    Daemon daemon(board);
    daemon.prepareRamDisk();
    // The start-time marker is named from the local time at start, and the
    // markers are made through a pipe opened for writing.
    const auto commands = board.tools().commands();
    ASSERT_FALSE(commands.empty());
    EXPECT_EQ(commands.back().line, "touch /ramcache/zarvent/23_59_2026-12-31.time");
    EXPECT_EQ(commands.back().mode, PipeMode::Write);
    EXPECT_EQ(file("/ramcache/zarvent/ntp.drift"), "");
    EXPECT_TRUE(board.files().exists("/ramcache/zarvent/ptp_data_0000_00_03"));
    EXPECT_EQ(daemon.shared().cycleTime().tm_mday, 31);
    daemon.startThreads();
    EXPECT_EQ(board.process().threadCount(), 3u);
}

class FpgaTest : public BoardTest {
  protected:
    FpgaTest()
    {
        board.fpga().setConfigured(false);
    }
    FpgaLoader fpga{board, runner, gpio, registers, shared};
    const std::string write1 = "./spiWrite -m 1 -l 3 -d 1 1 0 0";
};

TEST_F(FpgaTest, LoadsOnceAndWaitsForTheAnswer)
{
    fpga.setup();
    EXPECT_EQ(board.gpio().direction(182), "in");
    EXPECT_EQ(board.gpio().direction(13), "in");
    board.tools().onCommandOnce(write1, toolOutput("FF FF FF\n"));
    board.tools().onCommandOnce(write1, toolOutput("AA AA A5")); // no line end: no answer
    board.tools().onCommandOnce("./spiWrite -m 0 -l 3 -d 1 2 0",
                                toolOutput("ioctl: bad address\n"));
    board.fpga().setConfigured(true);
    const std::int64_t before = board.clock().nowUs();
    fpga.loadUntilConfigured();
    EXPECT_EQ(board.tools().countCommand("./wrFPGA --file Version_1.rbf"), 1u);
    EXPECT_EQ(board.tools().countCommand(write1), 3u); // the failed read wrote nothing
    EXPECT_EQ(board.clock().nowUs() - before, 3'000'000);
    board.tools().clearCommands();
    fpga.loadUntilConfigured();
    EXPECT_TRUE(board.tools().commands().empty());
}

// An FPGA that has not answered within a minute of its load is loaded again.
TEST_F(FpgaTest, LoadsAgainWhileTheFpgaDoesNotAnswer)
{
    board.fpga().setLoaderBroken(true);
    int reads = 0;
    board.fpga().setRegisterHooks(
        [&](int reg) {
            if (reg == 2 && ++reads == 60)
                board.fpga().setLoaderBroken(false);
        },
        {});
    fpga.loadUntilConfigured();
    EXPECT_EQ(board.fpga().loaderRuns(), 2);
    EXPECT_TRUE(shared.fpgaConfigured);
    EXPECT_NE(board.process().errorOutput().find("has not answered within a minute"),
              std::string::npos);
}

TEST_F(FpgaTest, LoaderThatCannotStartStillChecksTheFpga)
{
    board.tools().failCommand("./wrFPGA --file Version_1.rbf");
    board.fpga().setConfigured(true);
    fpga.loadUntilConfigured();
    EXPECT_EQ(board.tools().countCommand(write1), 1u);
}

TEST(Threads, DaemonThreadsAtOnce)
{
    sim::VirtualBoard board(kStart);
    board.boardTree();
    board.gpio().provideLine(19, false, 0);
    board.gpio().setPulse(19, 100000);
    for (int line : {79, 86, 87, 88})
        board.gpio().provideLine(line, false, 1);
    board.files().writeFile("/usr/bin/Zarvent/enable.cfg", "1\n");
    Daemon daemon(board);
    daemon.prepareRamDisk();
    daemon.startThreads();
    board.process().runRecordedThreads();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    board.process().stop();
    EXPECT_GT(board.tools().countCommand("./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0"), 0u);
    EXPECT_GT(board.tools().countCommand("ntpq -p | grep '*G'"), 0u);
    EXPECT_GT(board.fpga().loaderRuns(), 0);
    for (const auto &word : board.gpio().dacWords())
        EXPECT_FALSE(word.malformed);
}

// A stop request ends every thread within a supervision pass; the FPGA is
// told no more steering and no valid reference, its other bits kept, and no
// metrics stay; whatever was open is closed when the daemon's parts go away.
TEST(Threads, StopEndsEveryThreadAndClosesAll)
{
    sim::VirtualBoard board(kStart);
    board.boardTree();
    sim::BoardModel model(board, {});
    model.command({"rmc", "A"});
    board.files().writeFile("/usr/bin/Zarvent/enable.cfg", "1\n");
    sim::Scheduler scheduler(board, 0);
    {
        Daemon daemon(board);
        daemon.prepareRamDisk();
        daemon.startThreads();
        scheduler.wait(70'000'000); // steering and statistics under way
        EXPECT_GT(board.descriptors().openCount(), 0);
        ASSERT_EQ(board.fpga().registerValue(2) & 1, 1u);
        board.fpga().setRegister(2, board.fpga().registerValue(2) | 0x18);
        board.process().requestStop();
        const std::int64_t asked = board.clock().nowUs();
        EXPECT_TRUE(board.waitForStopRequest(std::chrono::seconds(1)));
        daemon.finishStop();
        EXPECT_LT(board.clock().nowUs() - asked, 5'000'000);
        EXPECT_EQ(board.fpga().registerValue(2), 0x18u);
        EXPECT_EQ(board.fpga().registerValue(1) & 1, 0u);
        EXPECT_FALSE(board.files().exists("/ramcache/zarvent/metrics/zarvent.prom"));
        EXPECT_EQ(scheduler.liveThreads(), 1u);
        const auto words = board.gpio().dacWords().size();
        scheduler.wait(3'000'000);
        EXPECT_EQ(board.gpio().dacWords().size(), words); // nothing runs any more
    }
    EXPECT_EQ(board.descriptors().openCount(), 0);
}

// systemd hears READY once the daemon is up, WATCHDOG while every thread
// progresses, nothing while the cycle thread is held in a sysfs read beyond
// its bound, WATCHDOG again once it goes on, and STOPPING at the stop.
TEST(Threads, WatchdogIsFedOnlyWhileEveryThreadProgresses)
{
    sim::VirtualBoard board(kStart);
    board.boardTree();
    sim::BoardModel model(board, {});
    board.process().setWatchdogInterval(std::chrono::seconds(20));
    sim::Scheduler scheduler(board, 0);
    Daemon daemon(board);
    board.startThread([&] {
        board.sleepSeconds(100);
        board.gpio().holdNextRead(19, 300'000'000);
        board.sleepSeconds(400);
        board.process().requestStop();
    });
    EXPECT_EQ(daemon.run(), 0);
    const auto sent = board.process().notifications();
    ASSERT_GT(sent.size(), 2u);
    EXPECT_EQ(sent.front().second, "READY=1");
    EXPECT_EQ(sent[sent.size() - 2].second, "STOPPING=1");
    std::vector<std::int64_t> longGaps;
    for (std::size_t i = 1; i + 2 < sent.size(); ++i) {
        EXPECT_EQ(sent[i].second, "WATCHDOG=1");
        if (sent[i].first - sent[i - 1].first > 10'000'000)
            longGaps.push_back(sent[i].first - sent[i - 1].first);
    }
    ASSERT_EQ(longGaps.size(), 1u);
    EXPECT_GT(longGaps[0], 140'000'000);
    EXPECT_LT(longGaps[0], 170'000'000);
    EXPECT_NE(board.process().errorOutput().find("the cycle thread has made no progress"),
              std::string::npos);
}

} // namespace
} // namespace zarvent::test
