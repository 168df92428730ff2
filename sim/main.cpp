// zarvent-sim: the daemon against the simulated board.
//   zarvent-sim --scenario FILE --out DIR [--pace P|fast] [--duration S] [--show]
//               [--report RDIR]
// --show redraws the demo screen every board second. The board's files stay in
// DIR/board (for example DIR/board/ramcache/zarvent/ntp_data.txt), the run's
// logs in DIR/logs; --report writes RDIR/report.html and RDIR/series.csv at
// the end of the run.
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "report_recorder.h"
#include "scenario.h"
#include "view.h"

namespace {

// Set by SIGINT and SIGTERM: the run ends cleanly at the next board second.
std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal handler may store it");

void onSignal(int)
{
    stopRequested.store(true);
}

// Only one of the daemon's threads runs at a time in virtual time. On one CPU
// each hand-over is a direct switch between two threads; spread over several,
// every hand-over waits for a wake-up on another CPU, which costs the run
// about a fifth of its speed.
void stayOnOneCpu()
{
    const int cpu = ::sched_getcpu();
    if (cpu < 0)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<unsigned>(cpu), &set);
    (void)::sched_setaffinity(0, sizeof set, &set); // only speed is lost if refused
}

int usage()
{
    (void)std::fprintf(
        stderr,
        "usage: zarvent-sim --scenario FILE --out DIR [--pace P|fast] [--duration S] [--show] "
        "[--report RDIR]\n");
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    stayOnOneCpu();
    zarvent::sim::RunOptions options;
    std::string reportDir;
    bool show = false;
    for (int i = 1; i < argc; i++) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--scenario" && hasValue)
            options.scenarioPath = argv[++i];
        else if (arg == "--out" && hasValue)
            options.outDir = argv[++i];
        else if (arg == "--pace" && hasValue)
            options.pace = std::strcmp(argv[++i], "fast") == 0 ? 0 : std::strtod(argv[i], nullptr);
        else if (arg == "--duration" && hasValue)
            options.durationS = std::strtoll(argv[++i], nullptr, 10);
        else if (arg == "--show")
            show = true;
        else if (arg == "--report" && hasValue)
            reportDir = argv[++i];
        else
            return usage();
    }
    if (options.scenarioPath.empty() || options.outDir.empty())
        return usage();

    struct sigaction action {};
    action.sa_handler = onSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    options.stop = &stopRequested;

    const zarvent::sim::View view(options.outDir, options.scenarioPath, options.pace);
    if (show)
        options.eachSecond = [&view](const zarvent::sim::SecondView &second) {
            view.second(second);
        };
    std::optional<zarvent::sim::ReportRecorder> recorder;
    if (!reportDir.empty()) {
        recorder.emplace(reportDir, options.scenarioPath);
        options.observer = &*recorder;
    }
    const zarvent::sim::RunResult result = zarvent::sim::runScenario(options);
    if (!result.ok) {
        (void)std::fprintf(stderr, "%s\n", result.error.c_str());
        return 1;
    }
    (void)std::printf("board files: %s/board   logs: %s/logs\n", options.outDir.c_str(),
                      options.outDir.c_str());
    if (!reportDir.empty())
        (void)std::printf("report: %s/report.html   data: %s/series.csv\n", reportDir.c_str(),
                          reportDir.c_str());
    if (result.daemonAborted) {
        (void)std::fprintf(stderr, "%s\n", result.error.c_str());
        return 1;
    }
    return 0;
}
