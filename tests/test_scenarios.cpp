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
    bool exists(const std::string &path) const
    {
        return std::filesystem::exists(dir_ / ("board" + path));
    }
    RunResult result;

  private:
    std::filesystem::path dir_;
};

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

} // namespace
} // namespace zarvent::sim
