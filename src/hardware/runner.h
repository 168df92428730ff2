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
// of SIGPIPE halfway through.
#pragma once

#include <cstddef>
#include <string>

#include "platform/platform.h"

namespace zarvent {

// What a read of a command's output found.
struct CommandLines {
    bool started = false; // false: the command could not be started
    int count = 0;        // lines read, at most the number of calls
    std::string last;     // the buffer after the calls: the last line read
};

class Runner {
  public:
    explicit Runner(Platform &platform) : platform_(platform) {}

    // Runs a command line in mode and closes it, its output unread; false when
    // it could not be started.
    bool run(const std::string &line, PipeMode mode);
    // Runs a command line (mode "r") and reads `calls` lines into a buffer of
    // bufferSize bytes.
    CommandLines readLines(const std::string &line, int calls, std::size_t bufferSize = 100);
    // Runs a command line (mode "r"): true when it printed at least one byte
    // (only whether it printed, never what, counts).
    bool hasOutput(const std::string &line);

  private:
    Platform &platform_;
};

} // namespace zarvent
