// A fresh virtual board and the daemon's view of it (runner, lines,
// registers, DAC, shared state), wired as the daemon wires them, for each
// test; a test builds the step or loop it tests on top.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "daemon/board.h"
#include "virtual_board.h"

namespace zarvent::test {

// 2026-11-16 13:27:00 UTC: local time on the virtual board is UTC.
inline constexpr std::int64_t kStart = 1794835620;

class BoardTest : public ::testing::Test {
  protected:
    BoardTest()
    {
        board.boardTree();
    }

    // The command lines run so far, in order.
    std::vector<std::string> lines() const
    {
        std::vector<std::string> out;
        for (const auto &c : board.tools().commands())
            out.push_back(c.line);
        return out;
    }
    // The register writes ("spiWrite -m 1") run so far.
    std::vector<std::string> registerWrites() const
    {
        std::vector<std::string> out;
        for (const auto &line : lines())
            if (line.find("spiWrite -m 1") != std::string::npos)
                out.push_back(line);
        return out;
    }
    // What a register tool prints, with fifth as its fifth line.
    static std::string toolOutput(const std::string &fifth)
    {
        return "spiWrite: mode 0\nregister\ntx: 0\ntransfer complete\n" + fifth;
    }
    // ntptime's output at a Unix time (in microseconds).
    static std::string ntptimeAt(std::int64_t unixUs)
    {
        return sim::NtpTools::formatNtptime(unixUs, 37);
    }
    std::string file(const std::string &path) const
    {
        return board.files().readFile(path).value_or("<missing>");
    }

    sim::VirtualBoard board{kStart};
    Board wiring{board};
    Runner &runner = wiring.runner;
    Gpio &gpio = wiring.gpio;
    Registers &registers = wiring.registers;
    Dac &dac = wiring.dac;
    SharedState &shared = wiring.shared;
};

} // namespace zarvent::test
