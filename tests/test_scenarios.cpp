// The whole daemon, all three threads, against the board model in virtual
// time: what the board and the web interface see.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "board_model.h"
#include "daemon/daemon.h"
#include "state/shared_state.h"
#include "scenario.h"
#include "statistics/metrics_file.h"

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

// The metrics file says, every second, what the board and the daemon hold:
// steering, the DAC code and offset of the cycle, the hand-overs closed, the
// reference and the antenna.
TEST(Scenario, MetricsFollowTheBoard)
{
    std::string pattern = std::filesystem::temp_directory_path() / "zarvent-metrics-XXXXXX";
    const std::filesystem::path dir = ::mkdtemp(pattern.data());
    RunOptions options;
    options.outDir = dir.string();
    options.scenarioText = "start 2026-11-16T13:27:00\nduration 200\nseed 7\n"
                           "osc gain 0.1 natural 33000 noise 3 offset 2500\nrmc A\npeer system\n"
                           "at 120 rmc V\nat 125 peer none\nat 150 gpio 87 0\n";
    int checked = 0;
    bool seenLost = false;
    unsigned previousCode = 0;
    options.eachSecond = [&](const SecondView &v) {
        const std::string text = v.board.files().readFile(metrics::kFile).value_or("");
        const auto value = [&](const std::string &series) {
            const std::size_t at = text.find("\n" + series + " ");
            return at == std::string::npos
                       ? std::string("missing")
                       : text.substr(at + series.size() + 2,
                                     text.find('\n', at + 1) - at - series.size() - 2);
        };
        if (text.empty())
            return;
        const BoardStats board = v.model.stats();
        const SharedState &shared = v.daemon.shared();
        const std::int64_t t = v.unixSecond - 1794835620;
        EXPECT_EQ(value("zarvent_steering"), v.daemon.steeringEnabled() ? "1" : "0") << t;
        EXPECT_EQ(value("zarvent_handovers_closed_total"),
                  std::to_string(board.handoversAccepted + board.handoversRejected))
            << t;
        if (board.dacWords > 0) {
            EXPECT_EQ(value("zarvent_dac_code"), std::to_string(board.lastDacCode)) << t;
        }
        if (board.phaseSecond >= 0) {
            EXPECT_NEAR(std::stod(value("zarvent_offset_seconds")), board.phaseReadNs * 1e-9, 1e-9)
                << t;
        }
        // The page of the same cycle.
        const std::string page =
            v.board.files().readFile("/ramcache/zarvent/ntp_data.txt").value_or("");
        EXPECT_EQ(value("zarvent_reference{state=\"none\"}"),
                  page.find("</b>    NULL\n") != std::string::npos ? "1" : "0")
            << t;
        // The supervision loop's code, once it has held for a second.
        const unsigned code = shared.antennaCode;
        if (code == previousCode) {
            EXPECT_EQ(value("zarvent_antenna{state=\"short\"}"), (code & 2u) == 0 ? "1" : "0") << t;
        }
        previousCode = code;
        seenLost |= value("zarvent_reference{state=\"none\"}") == "1" &&
                    value("zarvent_antenna{state=\"short\"}") == "1";
        ++checked;
    };
    const RunResult result = runScenario(options);
    std::filesystem::remove_all(dir);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_GT(checked, 190);
    EXPECT_TRUE(seenLost);
}

} // namespace
} // namespace zarvent::sim
