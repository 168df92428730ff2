// The whole daemon, all three threads, against the board model in virtual
// time: what the board and the web interface see.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "scenario.h"

namespace zarvent::sim {
namespace {

class ScenarioRun {
  public:
    explicit ScenarioRun(const std::string &scenario)
    {
        std::string pattern = std::filesystem::temp_directory_path() / "zarvent-scenario-XXXXXX";
        dir_ = ::mkdtemp(pattern.data());
        RunOptions options;
        options.scenarioText = scenario;
        options.outDir = dir_.string();
        result = runScenario(options);
    }
    ~ScenarioRun()
    {
        std::filesystem::remove_all(dir_);
    }

    std::string read(const std::filesystem::path &path) const
    {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string log(const std::string &name) const
    {
        return read(dir_ / "logs" / name);
    }
    std::string boardFile(const std::string &path) const
    {
        return read(dir_ / ("board" + path));
    }
    bool exists(const std::string &path) const
    {
        return std::filesystem::exists(dir_ / ("board" + path));
    }
    // Lines of a log whose first field, a time in seconds, lies in [from, to).
    std::vector<std::string> between(const std::string &name, std::int64_t from,
                                     std::int64_t to) const
    {
        std::vector<std::string> out;
        std::istringstream in(log(name));
        for (std::string line; std::getline(in, line);) {
            const std::int64_t t = std::atoll(line.c_str());
            if (t >= from && t < to)
                out.push_back(line);
        }
        return out;
    }

    RunResult result;

  private:
    std::filesystem::path dir_;
};

constexpr std::int64_t kStart = 1794835620; // 2026-11-16T13:27:00

TEST(Scenario, ToolFaultsNeverReachTheRegisters)
{
    const ScenarioRun run("start 2026-11-16T13:27:00\nduration 330\nrmc A\npeer system\n"
                          "at 100 regtool garbage\nat 130 regtool short\nat 160 regtool ok\n"
                          "at 170 tool ntpq absent\nat 200 tool ntpq present\n"
                          "at 210 tool ntptime absent\nat 240 tool ntptime present\n");
    ASSERT_TRUE(run.result.ok) << run.result.error;
    EXPECT_FALSE(run.result.daemonAborted);
    // While the register tool prints no register value, no value is written
    // back to registers 1 and 2; the writes come back with the tool.
    for (const auto &line : run.between("registers.log", kStart + 101, kStart + 160))
        EXPECT_EQ(line.find("-d 1 1 "), line.find("-d 1 2 ")) << line;
    EXPECT_FALSE(run.between("registers.log", kStart + 161, kStart + 170).empty());
    // ntpq gone: no reference, then back.
    const std::string errorlog = run.boardFile("/ramcache/zarvent/errorlog.log");
    EXPECT_NE(errorlog.find("Reference time: NULL\n"), std::string::npos);
    EXPECT_EQ(errorlog.rfind("Reference time: GPS+GLONASS\n"), errorlog.size() - 28);
    // The hand-over stops without a valid reading and comes back 60 cycles
    // after the receiver; it never closes on a wrong count.
    EXPECT_TRUE(run.between("handover.log", kStart + 210, kStart + 240).empty());
    EXPECT_FALSE(run.between("handover.log", kStart + 300, kStart + 330).empty());
    EXPECT_EQ(run.log("handover.log").find("rejected"), std::string::npos);
}

TEST(Scenario, CountersAcrossTheYearsEnd)
{
    // From 2026-12-31T23:30:00 past midnight: at 00:00:00 the hour and day
    // totals hold every reading from the start through 23:59:00; at 00:01:00
    // the minute total holds those of 00:00:01 to 00:01:00.
    const ScenarioRun run("start 2026-12-31T23:30:00\nduration 1870\nrmc A\npeer system\n"
                          "load 40 30\nat 1800 snapshot midnight\nat 1860 snapshot minute\n");
    ASSERT_TRUE(run.result.ok) << run.result.error;
    const std::int64_t start = 1798759800;
    auto sum = [&](int reg, std::int64_t from, std::int64_t to) {
        std::uint64_t total = 0;
        std::istringstream in(run.log("counts.log"));
        for (std::int64_t t, r, v; in >> t >> r >> v;)
            if (r == reg && t >= from && t <= to)
                total += static_cast<std::uint64_t>(v);
        return std::to_string(total);
    };
    const std::string midnight = run.log("midnight");
    EXPECT_NE(midnight.find("<b>Request per Hour:</b>\t" + sum(24, start, start + 1740) + "\t"),
              std::string::npos)
        << midnight;
    EXPECT_NE(midnight.find("<b>Request per Day:</b>\t" + sum(24, start, start + 1740) + "\n"),
              std::string::npos);
    EXPECT_NE(midnight.find("<b>Response per Day:</b>\t" + sum(26, start, start + 1740) + "\n"),
              std::string::npos);
    EXPECT_NE(run.log("minute").find("<b>Response per Minute:</b>\t" +
                                     sum(26, start + 1801, start + 1860) + "\t"),
              std::string::npos);
    EXPECT_TRUE(run.exists("/ramcache/zarvent/ptp_data_2026~12~31_23-59"));
    EXPECT_TRUE(run.exists("/ramcache/zarvent/ptp_data_2027~01~01_00-00"));
}

TEST(Scenario, SpiDeviceMissingEndsTheDaemon)
{
    const ScenarioRun run("duration 10\nfile /usr/bin/Zarvent/enable.cfg 1\nspi absent\n");
    EXPECT_TRUE(run.result.daemonAborted);
    EXPECT_TRUE(run.exists("/ftpdir/lock"));
}

} // namespace
} // namespace zarvent::sim
