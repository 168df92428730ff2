// The command runner and the Linux seam, with harmless commands only (printf,
// sleep, touch, ls, yes) and files in a temporary directory.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <optional>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "hardware/runner.h"
#include "platform/platform_linux.h"

namespace zarvent {
namespace {

class LinuxTest : public ::testing::Test {
  protected:
    LinuxTest()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "zarvent-linux-XXXXXX";
        dir_ = ::mkdtemp(pattern.data());
    }
    ~LinuxTest() override
    {
        std::filesystem::remove_all(dir_);
    }

    static std::optional<std::string> readText(const std::filesystem::path &path)
    {
        std::ifstream in(path);
        if (!in)
            return std::nullopt;
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    LinuxPlatform platform;
    Runner runner{platform};
    std::filesystem::path dir_;
};

TEST_F(LinuxTest, LinesAreReadAsTheToolsPrintThem)
{
    struct Case {
        const char *command;
        int calls;
        int count;
        std::string last;
    } cases[] = {
        {"printf 'one\\ntwo\\n'", 2, 2, "two\n"},
        {"printf 'one\\ntwo\\n'", 3, 2, "two\n"}, // a read at the end keeps the last line
        {"printf 'abc'", 1, 1, "abc"},
        {"printf '%0150d\\n' 0", 1, 1, std::string(99, '0')},
        {"printf '%0150d\\n' 0", 2, 2, std::string(51, '0') + "\n"}, // an overlong line in pieces
        {"printf 'AA\\000BB\\n'", 1, 1, "AA"},                       // a NUL ends the text
        {"true", 5, 0, ""},
    };
    for (const auto &c : cases) {
        const CommandLines out = runner.readLines(c.command, c.calls);
        EXPECT_TRUE(out.started);
        EXPECT_EQ(out.count, c.count) << c.command;
        EXPECT_EQ(out.last, c.last) << c.command;
    }
    EXPECT_EQ(runner.hasOutput("printf x"), true);
    EXPECT_EQ(runner.hasOutput("true"), false);
}

TEST_F(LinuxTest, ToolThatPrintsWhileItWorksRunsToItsEnd)
{
    // A loader that prints progress after a while: closed at once, it would
    // die of SIGPIPE before its last step.
    const auto done = dir_ / "loaded";
    EXPECT_TRUE(
        runner.run("sleep 0.2; echo progress; echo more; touch " + done.string(), PipeMode::Read));
    EXPECT_TRUE(std::filesystem::exists(done));
    const auto after = dir_ / "after-five";
    runner.readLines("printf '1\\n2\\n3\\n4\\n5\\n'; sleep 0.1; echo 6; touch " + after.string(),
                     5);
    EXPECT_TRUE(std::filesystem::exists(after));
    // However much it prints: 3 MB of progress, and then its last step.
    const auto big = dir_ / "after-3mb";
    EXPECT_TRUE(runner.run("head -c 3000000 /dev/zero; touch " + big.string(), PipeMode::Read));
    EXPECT_TRUE(std::filesystem::exists(big));
}

// A command that never ends is killed at its deadline with everything it
// started, and what it printed is not used; one that leaves a background
// child holding the pipe (the serial console) is done when it ends. Tools
// start with SIGPIPE as usual, though the daemon ignores it.
TEST_F(LinuxTest, DeadlinesAndBackgroundChildren)
{
    using Clock = std::chrono::steady_clock;
    const auto child = dir_ / "child";
    const auto started = Clock::now();
    auto hung =
        platform.startCommand("sleep 30 & echo $! > " + child.string() + "; echo 1; sleep 30",
                              PipeMode::Read, std::chrono::milliseconds(300));
    ASSERT_TRUE(hung);
    std::array<char, 16> buffer{};
    while (hung->read(buffer) > 0) {
    }
    EXPECT_EQ(hung->wait(), -1);
    EXPECT_TRUE(hung->timedOut());
    EXPECT_LT(Clock::now() - started, std::chrono::seconds(3));
    const std::string stat = "/proc/" + std::to_string(std::stoi(*readText(child))) + "/stat";
    for (int i = 0; i < 100 && std::filesystem::exists(stat) &&
                    readText(stat)->find(") Z ") == std::string::npos;
         ++i)
        ::usleep(10000);
    EXPECT_TRUE(!std::filesystem::exists(stat) || readText(stat)->find(") Z ") != std::string::npos)
        << "the background child outlived its group's deadline";

    const auto before = Clock::now();
    const CommandLines console = runner.readLines("echo ready; sleep 3 &", 2);
    EXPECT_LT(Clock::now() - before, std::chrono::seconds(2));
    EXPECT_TRUE(console.started);
    EXPECT_EQ(console.last, "ready\n");
    EXPECT_EQ(runner.hasOutput("kill -PIPE $$; echo survived"), false);
}

// A program whose killed command is still stuck (in its driver, on the
// board; here a child nobody reaps yet) gets no new command, and says so in
// its counts, until it is gone.
TEST_F(LinuxTest, StuckProgramIsRefusedWhileItLasts)
{
    const pid_t stuck = ::fork();
    ASSERT_GE(stuck, 0);
    if (stuck == 0) {
        ::pause();
        ::_exit(0);
    }
    platform.adoptUnreaped(stuck, "sleep");
    EXPECT_FALSE(runner.run("sleep 0", PipeMode::Read));
    EXPECT_TRUE(runner.toolCounts().at("sleep").refused);
    ::kill(stuck, SIGKILL);
    for (int i = 0; i < 100 && !runner.run("sleep 0", PipeMode::Read); ++i)
        ::usleep(10000);
    EXPECT_FALSE(runner.toolCounts().at("sleep").refused);
}

// systemd's notification socket: what the daemon sends arrives whole, and the
// tools it starts no longer see the socket or the watchdog.
TEST_F(LinuxTest, NotificationsReachTheSocket)
{
    const std::string path = (dir_ / "notify").string();
    UniqueFd socket(platform, ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "20000000", 1);
    LinuxPlatform managed;
    EXPECT_EQ(managed.watchdogInterval(), std::chrono::microseconds(20000000));
    EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr);
    EXPECT_EQ(std::getenv("WATCHDOG_USEC"), nullptr);
    managed.notifyServiceManager("READY=1");
    managed.notifyServiceManager("WATCHDOG=1");
    for (const char *expected : {"READY=1", "WATCHDOG=1"}) {
        std::array<char, 64> got{};
        const ssize_t n = ::recv(socket.get(), got.data(), got.size(), MSG_DONTWAIT);
        EXPECT_EQ(std::string(got.data(), n > 0 ? static_cast<std::size_t>(n) : 0), expected);
    }
}

TEST_F(LinuxTest, CommandsInheritNoDescriptor)
{
    const auto kept = dir_ / "kept-open";
    UniqueFd fd(platform, platform.open(kept.string(), O_WRONLY | O_CREAT));
    ASSERT_TRUE(fd.isValid());
    const CommandLines out =
        runner.readLines("ls -l /proc/self/fd/ | grep -c " + kept.filename().string(), 1);
    EXPECT_EQ(out.last, "0\n");
}

// SIGTERM stays pending until the main thread takes it; the threads then see
// the request and are joined; a tool started meanwhile has no signal blocked.
TEST_F(LinuxTest, StopSignalEndsEveryThread)
{
    std::atomic<int> ended{0};
    for (int i = 0; i < 2; ++i)
        platform.startThread([&] {
            while (!platform.stopRequested())
                platform.sleepMicroseconds(1000);
            ++ended;
        });
    const CommandLines mask = runner.readLines("grep SigBlk /proc/self/status", 1);
    EXPECT_EQ(mask.last, "SigBlk:\t0000000000000000\n");
    EXPECT_FALSE(platform.stopRequested());
    ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
    EXPECT_TRUE(platform.waitForStopRequest(std::chrono::seconds(10)));
    platform.joinThreads();
    EXPECT_TRUE(platform.stopRequested());
    EXPECT_EQ(ended.load(), 2);
}

TEST_F(LinuxTest, LocalTimeBeyond2038)
{
    ::setenv("TZ", "UTC", 1);
    const auto t = platform.localTime(std::int64_t{2147483647} + 365 * 86400);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->tm_year + 1900, 2039);
    EXPECT_EQ(t->tm_mon, 0);
}

} // namespace
} // namespace zarvent
