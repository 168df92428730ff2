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
// of SIGPIPE halfway through; the drain ends when the command has ended, even
// while a background child it started still holds the pipe.
//
// Every command has a deadline chosen by its program (commandDeadline). A
// command still running at its deadline is killed with its process group and
// counts as one that could not be started: nothing it printed is used. The
// first time-out of a program is named on standard error, and the end of the
// episode once the program has gone a minute without one; not once per
// second in between, however its lines alternate between hanging and not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/mutex.h"
#include "platform/platform.h"

namespace zarvent {

// What a read of a command's output found.
struct CommandLines {
    bool started = false; // false: the command could not be started
    int count = 0;        // lines read, at most the number of calls
    std::string last;     // the buffer after the calls: the last line read
};

// The program a command line runs (its first word without the directory:
// "spiWrite" for "./spiWrite -m 0 ..."), and the deadline that program gets.
std::string_view commandProgram(std::string_view line);
Deadline commandDeadline(std::string_view program);

// What became of the commands of one program since the daemon started.
struct ToolCounts {
    std::uint64_t run = 0;      // started
    std::uint64_t failed = 0;   // could not be started, or ended with a status other than 0
    std::uint64_t timedOut = 0; // killed at the deadline
};

class Runner {
  public:
    explicit Runner(Platform &platform) : platform_(platform) {}

    // Runs a command line in mode and closes it, its output unread: its wait
    // status, or nothing when it could not be started or was killed at its
    // deadline.
    std::optional<int> run(const std::string &line, PipeMode mode);
    // Runs a command line (mode "r") and reads `calls` lines into a buffer of
    // bufferSize bytes.
    CommandLines readLines(const std::string &line, int calls, std::size_t bufferSize = 100);
    // Runs a command line (mode "r"): true when it printed at least one byte
    // (only whether it printed, never what, counts).
    bool hasOutput(const std::string &line);

    // The counts of each program run so far, by program.
    std::map<std::string, ToolCounts, std::less<>> toolCounts() const;

  private:
    // Counts how a command of line ended (status: -1 when it could not be
    // started) and names a time-out episode's start and end on standard
    // error.
    void account(const std::string &line, int status, bool timedOut);

    struct ToolRecord {
        ToolCounts counts;
        std::uint64_t episodeTimeouts = 0; // time-outs since the episode began
        std::int64_t lastTimeoutNs = 0;    // monotonic
    };

    Platform &platform_;
    mutable Mutex mutex_;
    std::map<std::string, ToolRecord, std::less<>> tools_ GUARDED_BY(mutex_);
};

} // namespace zarvent
