#include "scenario.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "scheduler.h"
#include "text.h"

namespace zarvent::sim {

namespace {

constexpr const char *kSeparators = " \t\r\n";

struct Event {
    std::int64_t atS;
    int line;
    std::string text;
};

struct Scenario {
    std::int64_t start = 1794835620; // 2026-11-16T13:27:00 UTC
    std::int64_t durationS = 600;
    std::int64_t commandCostUs = 4000;
    BoardConfig config;
    std::vector<Event> events;
};

std::optional<std::int64_t> parseStart(const std::string &text)
{
    std::tm t{};
    // The count says all six fields were read; the values are small numbers.
    // NOLINTNEXTLINE(cert-err34-c)
    if (std::sscanf(text.c_str(), "%d-%d-%dT%d:%d:%d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                    &t.tm_hour, &t.tm_min, &t.tm_sec) != 6)
        return std::nullopt;
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    return static_cast<std::int64_t>(::timegm(&t));
}

// Settings and timed commands; the error "scenario line N: ..." otherwise.
std::string parseScenario(const std::string &text, Scenario &scenario)
{
    std::istringstream in(text);
    std::string line;
    for (int number = 1; std::getline(in, line); number++) {
        line = line.substr(0, line.find('#'));
        const std::vector<std::string> w = splitWords(line, kSeparators);
        const std::size_t nw = w.size();
        const auto error = [&](const char *what) {
            return "scenario line " + std::to_string(number) + ": " + what;
        };
        if (nw == 0)
            continue;
        if (w[0] == "at") {
            if (nw < 3)
                return error("at needs a time and a command");
            // The command is the rest of the line from its first word on.
            std::size_t pos = line.find_first_not_of(kSeparators);
            for (int skip = 0; skip < 2; skip++)
                pos = line.find_first_not_of(kSeparators, line.find_first_of(kSeparators, pos));
            scenario.events.push_back(
                {std::strtoll(w[1].c_str(), nullptr, 10), number, line.substr(pos)});
        } else if (w[0] == "start" && nw == 2) {
            const auto start = parseStart(w[1]);
            if (!start)
                return error("start wants YYYY-MM-DDTHH:MM:SS (UTC)");
            scenario.start = *start;
        } else if (w[0] == "duration" && nw == 2) {
            scenario.durationS = std::strtoll(w[1].c_str(), nullptr, 10);
        } else if (w[0] == "seed" && nw == 2) {
            scenario.config.seed =
                static_cast<std::uint32_t>(std::strtoul(w[1].c_str(), nullptr, 10));
        } else if (w[0] == "pulse" && nw == 2) {
            scenario.config.pulseHighUs = std::strtoll(w[1].c_str(), nullptr, 10) * 1000;
        } else if (w[0] == "cost" && nw == 2) {
            scenario.commandCostUs = std::strtoll(w[1].c_str(), nullptr, 10);
        } else if (w[0] == "osc") {
            std::size_t first = 1;
            if (nw >= 2 && applyOscillatorPreset(w[1], scenario.config))
                first = 2;
            for (std::size_t i = first; i + 1 < nw; i += 2) {
                const double v = std::strtod(w[i + 1].c_str(), nullptr);
                if (w[i] == "gain")
                    scenario.config.gain = v;
                else if (w[i] == "natural")
                    scenario.config.naturalCode = static_cast<int>(v);
                else if (w[i] == "noise")
                    scenario.config.noiseNs = v;
                else if (w[i] == "offset")
                    scenario.config.initialOffset = v;
                else if (w[i] == "walk")
                    scenario.config.randomWalkPpb = v;
                else if (w[i] == "temperature")
                    scenario.config.temperaturePpb = v;
                else if (w[i] == "ageing")
                    scenario.config.ageingPpbPerDay = v;
                else
                    return error("osc takes ocxo or tcxo, then gain, natural, noise, offset, "
                                 "walk, temperature, ageing");
            }
            if ((nw - first) % 2 != 0)
                return error("osc wants a value after each name");
        } else {
            // A command without "at" applies from the start.
            scenario.events.push_back({0, number, line});
        }
    }
    std::stable_sort(scenario.events.data(), scenario.events.data() + scenario.events.size(),
                     [](const Event &a, const Event &b) { return a.atS < b.atS; });
    return "";
}

// The parts of one run, in the order they are built and the reverse order
// they are torn down.
class Run {
  public:
    Run(const RunOptions &options, const Scenario &scenario)
        : options_(options), logDir_(options.outDir + "/logs"),
          board_(options.outDir + "/board", scenario.start), tree_(board_),
          model_(board_, scenario.config)
    {}

    // Lets virtual time pass for the run's own thread: before the daemon
    // starts the clock simply moves.
    void wait(std::int64_t us)
    {
        if (scheduler_ != nullptr)
            scheduler_->wait(us);
        else
            board_.clock().setNowUs(board_.clock().nowUs() + us);
    }

    // Applies one event; the error text when the model does not know it.
    std::string apply(const Event &event)
    {
        const std::vector<std::string> w = splitWords(event.text, kSeparators);
        if (w.size() >= 2 && w[0] == "snapshot") {
            // Taken 0.9 s into the second, after the second's cycle.
            wait(900000);
            const auto content =
                board_.files().readFile(w.size() >= 3 ? w[2] : "/ramcache/zarvent/ntp_data.txt");
            std::error_code error;
            std::filesystem::create_directories(logDir_, error);
            std::ofstream(logDir_ + "/" + w[1], std::ios::binary) << content.value_or("");
            return "";
        }
        if (const auto error = model_.command(w))
            return "scenario line " + std::to_string(event.line) + ": " + *error;
        return "";
    }

    RunResult run(const Scenario &scenario)
    {
        RunResult result;
        if (options_.observer != nullptr)
            options_.observer->started(scenario.config, scenario.durationS);
        const auto &events = scenario.events;
        std::size_t next = 0;
        for (; next < events.size() && events[next].atS <= 0; next++)
            if (result.error = apply(events[next]); !result.error.empty())
                return result;
        board_.clock().setCommandCostUs(scenario.commandCostUs);
        if (options_.beforeStart)
            options_.beforeStart(board_, model_);
        Scheduler scheduler(board_, options_.pace);
        scheduler_ = &scheduler;
        zarvent::Daemon daemon(board_);
        // The daemon's threads end before the daemon's parts go away.
        struct Finish {
            Scheduler &scheduler;
            ~Finish()
            {
                scheduler.finish();
            }
        } finish{scheduler};
        try {
            // The daemon's own start, as its main() does it.
            daemon.prepareRamDisk();
            daemon.startThreads();
            const std::int64_t startUs = scenario.start * 1000000;
            for (std::int64_t second = 1; second <= scenario.durationS; second++) {
                wait(startUs + second * 1000000 - board_.clock().nowUs());
                if (board_.process().aborted())
                    break;
                for (; next < events.size() && events[next].atS <= second; next++)
                    if (result.error = apply(events[next]); !result.error.empty())
                        return result;
                const SecondView view{scenario.start + second, board_, model_, daemon};
                if (options_.observer != nullptr)
                    options_.observer->second(view);
                if (options_.eachSecond)
                    options_.eachSecond(view);
                if (options_.stop != nullptr && options_.stop->load())
                    break;
                // Asked to stop (SIGTERM on the board): as the daemon's main
                // thread, once it sees the request.
                if (board_.stopRequested()) {
                    daemon.finishStop();
                    result.daemonStopped = true;
                    break;
                }
            }
        } catch (const SimulationEnded &) {
            // The daemon aborted on the run's own thread (during its start).
        }
        if (options_.afterRun)
            options_.afterRun(board_);
        result.daemonAborted = board_.process().aborted();
        if (result.daemonAborted)
            result.error = format("the daemon aborted at board time %lld.%06lld",
                                  static_cast<long long>(board_.clock().nowUs() / 1000000),
                                  static_cast<long long>(board_.clock().nowUs() % 1000000));
        if (!model_.writeLogs(logDir_)) {
            result.error = "cannot write the logs in " + logDir_;
            return result;
        }
        // What the daemon wrote to its standard error.
        std::ofstream(logDir_ + "/stderr.log", std::ios::binary) << board_.process().errorOutput();
        if (options_.observer != nullptr) {
            if (const std::string error = options_.observer->finished(board_); !error.empty()) {
                result.error = error;
                return result;
            }
        }
        result.ok = true;
        return result;
    }

  private:
    // The board's usual tree, laid before the model adds its files.
    struct Tree {
        explicit Tree(VirtualBoard &board)
        {
            board.boardTree();
        }
    };

    const RunOptions &options_;
    const std::string logDir_;
    VirtualBoard board_;
    Tree tree_;
    BoardModel model_;
    Scheduler *scheduler_ = nullptr;
};

} // namespace

RunResult runScenario(const RunOptions &options)
{
    RunResult result;
    std::string text = options.scenarioText;
    if (!options.scenarioPath.empty()) {
        std::ifstream in(options.scenarioPath, std::ios::binary);
        if (!in) {
            result.error = "cannot read scenario " + options.scenarioPath;
            return result;
        }
        std::ostringstream content;
        content << in.rdbuf();
        text = content.str();
    }
    Scenario scenario;
    if (result.error = parseScenario(text, scenario); !result.error.empty())
        return result;
    if (options.durationS > 0)
        scenario.durationS = options.durationS;
    Run run(options, scenario);
    return run.run(scenario);
}

} // namespace zarvent::sim
