// One run of a program the shell starts: the words it split the simple
// command into (the program first), the command itself, and the output the
// program prints.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zarvent::sim {

struct ProgramRun {
    const std::vector<std::string> &words;
    const std::string &line;
    std::string &out;
};

// A program's model: its effect on the board and its output. Runs with the
// board's lock held.
using ProgramHandler = std::function<void(const ProgramRun &)>;

} // namespace zarvent::sim
