// One run of the whole daemon (all its threads, the daemon logic unchanged)
// against the board model, driven by a scenario file, in virtual time.
//
// A scenario is data, one setting or command a line ('#' starts a comment):
//   start 2026-11-16T13:27:00     board time at the start (UTC)
//   duration 600                  board seconds to run
//   seed 7                        the board model's random sequence
//   osc [ocxo|tcxo] [gain G] [natural N] [noise S] [offset O] [walk W]
//       [temperature T] [ageing A]   the oscillator: a preset, then
//                                 parameters (ppb/code, code, ns, ns, ppb per
//                                 second, ppb daily amplitude, ppb per day)
//   pulse MS                      high part of the pulse on line 19
//   cost US                       virtual time each command takes to start
//   at T COMMAND                  a board command at second T; without "at"
//                                 it applies from the start
// Board commands: rmc A|V, peer system|pps|both|none, gpio LINE LEVEL,
// tool NAME absent|present, regtool garbage|short|ok, file PATH [TEXT...],
// event 1|2, load REQUESTS RESPONSES, responses N, offset NS, spi absent,
// snapshot NAME [PATH] (a copy of a board file into the logs, 0.9 s into the
// second: the status page by default).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "board_model.h"
#include "daemon/daemon.h"
#include "virtual_board.h"

namespace zarvent::sim {

struct SecondView {
    std::int64_t unixSecond;
    VirtualBoard &board;
    BoardModel &model;
    zarvent::Daemon &daemon;
};

// Watches a run from outside: the report of a run records it so.
class RunObserver {
  public:
    virtual ~RunObserver() = default;
    // Before the scenario's first commands: the board and the board seconds
    // it is to run.
    virtual void started(const BoardConfig &config, std::int64_t durationS) = 0;
    // Once per board second, before eachSecond.
    virtual void second(const SecondView &view) = 0;
    // After the run, once its logs are written: the reason when what the
    // observer writes cannot be written.
    virtual std::string finished(VirtualBoard &board) = 0;
};

struct RunOptions {
    std::string scenarioPath;   // a scenario file, or
    std::string scenarioText;   // the scenario itself when no path is given
    std::string outDir;         // board tree in outDir/board, logs in outDir/logs
    double pace = 0;            // 0: as fast as possible; p: p times real time
    std::int64_t durationS = 0; // overrides the scenario's duration when > 0
    std::function<void(const SecondView &)> eachSecond; // once per board second
    // Once the board is laid out and before the daemon starts.
    std::function<void(VirtualBoard &, BoardModel &)> beforeStart;
    const std::atomic<bool> *stop = nullptr; // ends the run at the next second
    // Once the run has ended, before the board goes away.
    std::function<void(VirtualBoard &)> afterRun;
    RunObserver *observer = nullptr;
};

struct RunResult {
    bool ok = false;
    std::string error;
    bool daemonAborted = false;
    bool daemonStopped = false; // asked to stop, it ended its threads
};

RunResult runScenario(const RunOptions &options);

} // namespace zarvent::sim
