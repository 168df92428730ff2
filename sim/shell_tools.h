// The command lines the daemon runs, as the board's shell runs them: each
// ';'-separated simple command goes to the model of its program, looked up
// by name in a table (spiWrite, wrFPGA, ntpq, ntptime, and the shell
// utilities acting on the tree; mkfs, agetty, mversion, adjtimex and any
// other program are only recorded). Per-test rules answer a line in place of
// the models; a program can be missing or misbehave. Every line is recorded
// with its time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "board_clock.h"
#include "board_files.h"
#include "board_lock.h"
#include "daemon_process.h"
#include "fpga_model.h"
#include "platform/platform.h"
#include "program_run.h"
#include "sysfs_gpio.h"

namespace zarvent::sim {

struct CommandRecord {
    std::string line;
    PipeMode mode = PipeMode::Read;
    std::int64_t timeUs = 0;
};

// What a misbehaving program does to its output (the model still runs, so
// its effects on the board happen): nothing at all, the first half, the same
// shape with other letters and digits, an error message instead, everything
// on one endless line without a newline, binary junk, the right output with
// exit status 1, the right output after three seconds or after ten (a name
// server that does not answer), killed first where its deadline is shorter,
// or never ending until killed at its deadline, having done nothing. A missing program is
// setToolAbsent().
enum class ToolFault {
    None,
    Empty,
    Short,
    Garbage,
    Error,
    Overlong,
    Binary,
    ExitStatus,
    Slow,
    VerySlow,
    Hang
};

class ShellTools {
  public:
    ShellTools(BoardMutex &mutex, BoardClock &clock, DaemonProcess &process, BoardFiles &files,
               SysfsGpio &gpio, FpgaModel &fpga);

    // The program's model, for command lines whose program is written so
    // ("./spiWrite", "ntpq").
    void addProgram(const std::string &program, ProgramHandler handler);

    // Every run of exactly this line prints output (rules win over the models).
    void onCommand(const std::string &line, const std::string &output);
    // The next run of this line prints output; such answers are used in order
    // before any standing rule.
    void onCommandOnce(const std::string &line, const std::string &output);
    // The line cannot be started (startCommand returns nullptr).
    void failCommand(const std::string &line);
    // Command lines whose program is this tool print nothing, as a shell does
    // for a missing program.
    void setToolAbsent(const std::string &tool, bool absent);
    // Every command line whose first program is `program` (as written: "ntpq",
    // "./spiWrite", "echo"), or that is exactly `program`, misbehaves so.
    void setToolFault(const std::string &program, ToolFault fault);
    // Forgets every answer, failure and fault set above: the models answer.
    void clearRules();
    std::vector<CommandRecord> commands() const;
    // The commands from the from-th on.
    std::vector<CommandRecord> commands(std::size_t from) const;
    std::size_t countCommand(const std::string &line) const;
    void clearCommands();
    // The address ifconfig gave eth0, as ADDRESS/PREFIX.
    std::string eth0Address() const;

    // ---- for the seam
    std::unique_ptr<Command> startCommand(const std::string &line, PipeMode mode,
                                          Deadline deadline);
    void dropHistoryLocked() REQUIRES(kBoardLock);

  private:
    struct Rule {
        std::string line;
        std::string output;
        bool failStart = false;
        bool once = false;
        bool used = false;
    };

    Rule *ruleLocked(const std::string &commandLine) REQUIRES(kBoardLock);
    bool absentLocked(const std::string &program) const REQUIRES(kBoardLock);
    void runLineLocked(const std::string &commandLine, std::string &out) REQUIRES(kBoardLock);
    void runSimpleLocked(const std::string &commandLine, std::string &out) REQUIRES(kBoardLock);
    int misbehaveLocked(ToolFault fault, const std::string &program, std::string &out)
        REQUIRES(kBoardLock);
    std::uint8_t junkByteLocked() REQUIRES(kBoardLock);

    // The shell utilities (shell_utilities.cpp).
    void addUtilities();
    void echoLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void rmLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void touchLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void mkdirLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void mvLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void cpLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void tailLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void dfLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void mountLocked(const ProgramRun &run) REQUIRES(kBoardLock);
    void ifconfigLocked(const ProgramRun &run) REQUIRES(kBoardLock);

    BoardMutex &mutex_;
    BoardClock &clock_;
    DaemonProcess &process_;
    BoardFiles &files_;
    SysfsGpio &gpio_;
    FpgaModel &fpga_;
    std::map<std::string, ProgramHandler> programs_ GUARDED_BY(kBoardLock);
    std::vector<CommandRecord> commands_ GUARDED_BY(kBoardLock);
    std::vector<Rule> rules_ GUARDED_BY(kBoardLock);
    std::vector<std::string> absentTools_ GUARDED_BY(kBoardLock);
    std::map<std::string, ToolFault> toolFaults_ GUARDED_BY(kBoardLock);
    std::uint32_t junk_ GUARDED_BY(kBoardLock) = 12345; // the faulty tools' pseudo-random bytes
    std::string eth0_ GUARDED_BY(kBoardLock);
};

} // namespace zarvent::sim
