// The command runner: every outside program the daemon uses is a command line
// run through the OS seam and closed before the call returns.
//
// Output is read as the board's C tools have always been read: line by line
// into a fixed buffer, each call taking at most the buffer's size less one
// characters or up to and including a newline, so an overlong line comes in
// pieces and each piece counts as a line; a call at the end of the output
// leaves the buffer as it was. A NUL byte ends the text of a line. Nothing is
// ever read beyond what the command printed.
//
// Before a command is closed, the rest of its output is read and dropped, so
// a tool that prints while it works (the FPGA loader's progress) never dies
// of SIGPIPE halfway through, however much it prints; the drain ends when the
// command has ended, even while a background child it started still holds the
// pipe, or at its deadline.
//
// Every command has a deadline chosen by its command line (commandDeadline).
// A command still running at its deadline is killed with its process group:
// nothing it printed is used, and the caller learns that it was killed, which
// is not the same as a command that could not be started, nor as an answer.
// The first time-out of a program is named on standard error, and the end of
// the episode once the program has gone a minute without one; not once per
// second in between, however its lines alternate between hanging and not.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mutex.h"
#include "platform/platform.h"

namespace zarvent {

// The deadlines, by what a command does; each is far beyond the command's
// worst normal case, so that only a tool that truly hangs is killed.
//
// The register tool makes one SPI transfer of a few bytes and prints five
// lines: milliseconds on the board even when it is busy; a cycle that waited
// longer would have missed its second anyway. ntptime is one system call and
// a print.
inline constexpr Deadline kRegisterToolDeadline = std::chrono::seconds{2};
inline constexpr Deadline kNtptimeDeadline = std::chrono::seconds{2};
// "ntpq -c clockvar" asks the local ntpd alone: ntpq gives up on a silent
// ntpd by itself after its own time-out (5 s) and says so.
inline constexpr Deadline kClockvarDeadline = std::chrono::seconds{8};
// "ntpq -p" also names each peer through the resolver, and a name server
// that does not answer makes that slow: the tools run with RES_OPTIONS
// "timeout:1 attempts:1" (platform_linux.cpp), so a look-up gives up after a
// second per name server, three at most. ntpq's 5 s for ntpd and 3 s for each
// of eight peers stay within this.
inline constexpr Deadline kPeersDeadline = std::chrono::seconds{30};
// The loader pushes the whole bitstream over SPI and waits for the FPGA to
// report it configured: seconds on a working board. Two minutes is far beyond
// a working load and still lets the board come up.
inline constexpr Deadline kLoaderDeadline = std::chrono::seconds{120};
// mkfs of the 8 MiB RAM disk takes well under a second; the time beyond
// bounds a block device that does not answer. mount and the version program
// likewise.
inline constexpr Deadline kMkfsDeadline = std::chrono::seconds{30};
inline constexpr Deadline kMountDeadline = std::chrono::seconds{10};
// The shell utilities (echo into sysfs, rm, touch, tail, cp, mkdir, df,
// adjtimex, ifconfig, the console started in the background) return in
// milliseconds; df can hang on a dead mount, echo on a wedged driver.
inline constexpr Deadline kShellDeadline = std::chrono::seconds{5};

// What a read of a command's output found.
struct CommandLines {
    bool started = false;           // false: the command could not be started
    bool timedOut = false;          // killed at its deadline: nothing of it is used
    int count = 0;                  // lines read, at most the number of calls
    std::string last;               // the buffer after the calls: the last line read
    std::vector<std::string> lines; // each line read, in order
};

// The program a command line runs (its first word without the directory:
// "spiWrite" for "./spiWrite -m 0 ..."), and the deadline the line gets.
std::string_view commandProgram(std::string_view line);
Deadline commandDeadline(std::string_view line);

// What became of the commands of one program since the daemon started.
struct ToolCounts {
    std::uint64_t run = 0;      // started
    std::uint64_t failed = 0;   // could not be started, or failed by its exit status
    std::uint64_t timedOut = 0; // killed at the deadline
    bool refused = false;       // its latest start was refused: a killed one is still stuck
};

class Runner {
  public:
    explicit Runner(Platform &platform) : platform_(platform) {}

    // Runs a command line in mode and closes it, its output unread: its wait
    // status, or nothing when it could not be started or was killed at its
    // deadline (timedOut, when given, says which).
    std::optional<int> run(const std::string &line, PipeMode mode, bool *timedOut = nullptr);
    // Runs a command line (mode "r") and reads `calls` lines into a buffer of
    // bufferSize bytes.
    CommandLines readLines(const std::string &line, int calls, std::size_t bufferSize = 100);
    // Runs a query (mode "r") ending in grep: true when it printed at least
    // one byte (only whether it printed, never what, counts), false when it
    // printed nothing; nothing when it could not be started or was killed, so
    // that nobody takes a hung query for an answer. grep's status 1 (no line
    // matched) is an answer, not a failure.
    std::optional<bool> hasOutput(const std::string &line);

    // A read whose command gave no value (not started, killed, too few
    // lines, not the documented form), counted by what was read.
    void countFailedRead(const char *what) EXCLUDES(mutex_);

    // The counts of each program run so far, by program, and the failed
    // reads by what was read.
    std::map<std::string, ToolCounts, std::less<>> toolCounts() const EXCLUDES(mutex_);
    std::map<std::string, std::uint64_t, std::less<>> failedReads() const EXCLUDES(mutex_);

  private:
    // Starts a command line, counting a start refused.
    std::unique_ptr<Command> start(const std::string &line, PipeMode mode);
    // Counts how a command of line ended (status: -1 when it could not be
    // started) and names a time-out episode's start and end on standard
    // error.
    void account(const std::string &line, int status, bool timedOut) EXCLUDES(mutex_);

    struct ToolRecord {
        ToolCounts counts;
        std::uint64_t episodeTimeouts = 0; // time-outs since the episode began
        std::int64_t lastTimeoutNs = 0;    // monotonic
    };

    Platform &platform_;
    mutable Mutex mutex_;
    std::map<std::string, ToolRecord, std::less<>> tools_ GUARDED_BY(mutex_);
    std::map<std::string, std::uint64_t, std::less<>> failedReads_ GUARDED_BY(mutex_);
};

} // namespace zarvent
