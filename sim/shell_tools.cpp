#include "shell_tools.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <string_view>
#include <utility>

#include "text.h"

namespace zarvent::sim {

namespace {

// A command's output, captured by the model when the command ran.
class ModelledCommand final : public Command {
  public:
    ModelledCommand(std::string output, int status, bool timedOut = false)
        : output_(std::move(output)), status_(status), timedOut_(timedOut)
    {}
    long read(std::span<char> into) override
    {
        const std::size_t count = std::min(into.size(), output_.size() - position_);
        std::copy_n(output_.data() + position_, count, into.data());
        position_ += count;
        return static_cast<long>(count);
    }
    int wait() override
    {
        return status_;
    }
    bool timedOut() const override
    {
        return timedOut_;
    }

  private:
    std::string output_;
    std::size_t position_ = 0;
    int status_ = 0;
    bool timedOut_ = false;
};

// How long a slow program takes before it prints.
constexpr std::int64_t kSlowUs = 3000000;
constexpr std::int64_t kVerySlowUs = 10000000;

} // namespace

ShellTools::ShellTools(BoardMutex &mutex, BoardClock &clock, DaemonProcess &process,
                       BoardFiles &files, SysfsGpio &gpio, FpgaModel &fpga)
    : mutex_(mutex), clock_(clock), process_(process), files_(files), gpio_(gpio), fpga_(fpga)
{
    addUtilities();
}

void ShellTools::addProgram(const std::string &program, ProgramHandler handler)
{
    const BoardLocker lock(mutex_);
    programs_[program] = std::move(handler);
}

std::unique_ptr<Command> ShellTools::startCommand(const std::string &line, PipeMode mode,
                                                  Deadline deadline)
{
    process_.checkRunning();
    // Starting a program on the board takes time of its own; the command
    // runs (and is logged) once that has passed.
    if (const std::int64_t cost = clock_.commandCostUs(); cost > 0)
        process_.passTime(cost);
    const std::string program = line.substr(0, line.find_first_of(" \t\n;|"));
    ToolFault fault = ToolFault::None;
    std::int64_t deadlineUs =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline).count();
    {
        const BoardLocker lock(mutex_);
        if (const auto f = toolFaults_.find(line); f != toolFaults_.end())
            fault = f->second;
        else if (const auto g = toolFaults_.find(program); g != toolFaults_.end())
            fault = g->second;
        deadlineUs = process_.commandDeadlineLocked(deadlineUs);
    }
    const std::int64_t slowUs = fault == ToolFault::Slow       ? kSlowUs
                                : fault == ToolFault::VerySlow ? kVerySlowUs
                                                               : 0;
    if (fault == ToolFault::Hang || (slowUs > 0 && slowUs >= deadlineUs)) {
        // Killed at its deadline with its group, before it did anything.
        {
            const BoardLocker lock(mutex_);
            commands_.push_back({line, mode, clock_.nowUsLocked()});
        }
        process_.passTime(deadlineUs);
        return std::make_unique<ModelledCommand>("", -1, true);
    }
    if (slowUs > 0)
        process_.passTime(slowUs);
    const BoardLocker lock(mutex_);
    commands_.push_back({line, mode, clock_.nowUsLocked()});
    const std::size_t printedBefore = fpga_.printedMarkLocked();
    std::string output;
    if (Rule *rule = ruleLocked(line)) {
        if (rule->once)
            rule->used = true;
        if (rule->failStart) {
            errno = ENOENT;
            return nullptr;
        }
        output = rule->output;
    } else {
        runLineLocked(line, output);
    }
    int status = misbehaveLocked(fault, program, output);
    // A pipeline ends with its last command's status: grep's is 1 when no
    // line matched.
    if (status == 0 && output.empty() && line.find("| grep ") != std::string::npos)
        status = 1 << 8;
    if (fault != ToolFault::None && slowUs == 0 && fault != ToolFault::ExitStatus)
        fpga_.forgetPrintedSinceLocked(printedBefore); // not what it printed
    // A command started for writing has its output on the daemon's own
    // standard output, not in the pipe.
    if (mode == PipeMode::Write)
        output.clear();
    return std::make_unique<ModelledCommand>(std::move(output), status);
}

// The rule that answers a line: the first unused one-time answer, else the
// last standing rule.
ShellTools::Rule *ShellTools::ruleLocked(const std::string &commandLine)
{
    for (Rule &r : rules_)
        if (r.once && !r.used && r.line == commandLine)
            return &r;
    for (auto r = rules_.rbegin(); r != rules_.rend(); ++r)
        if (!r->once && r->line == commandLine)
            return &*r;
    return nullptr;
}

bool ShellTools::absentLocked(const std::string &program) const
{
    const std::size_t slash = program.rfind('/');
    const std::string base = slash == std::string::npos ? program : program.substr(slash + 1);
    return std::find(absentTools_.begin(), absentTools_.end(), base) != absentTools_.end();
}

// A command line as the shell takes it: trailing newlines, blanks and '&'
// dropped, then each ';'-separated command in turn.
void ShellTools::runLineLocked(const std::string &commandLine, std::string &out)
{
    std::string text = commandLine;
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '&'))
        text.pop_back();
    for (const std::string &part : splitWords(text, ";", SIZE_MAX)) {
        const std::size_t start = part.find_first_not_of(' ');
        runSimpleLocked(start == std::string::npos ? "" : part.substr(start), out);
    }
}

// One simple command (no ';'): its effect on the board and its output.
void ShellTools::runSimpleLocked(const std::string &commandLine, std::string &out)
{
    const std::vector<std::string> w = splitWords(commandLine, " \t\n");
    if (w.empty() || absentLocked(w[0]))
        return;
    const auto program = programs_.find(w[0]);
    if (program == programs_.end())
        return; // recorded only
    // A copy: a model may let go of the lock while it runs.
    const ProgramHandler handler = program->second;
    handler(ProgramRun{w, commandLine, out});
}

std::uint8_t ShellTools::junkByteLocked()
{
    junk_ ^= junk_ << 13;
    junk_ ^= junk_ >> 17;
    junk_ ^= junk_ << 5;
    return static_cast<std::uint8_t>(junk_ >> 24);
}

// A faulty program's output in place of out; its exit status.
int ShellTools::misbehaveLocked(ToolFault fault, const std::string &program, std::string &out)
{
    constexpr std::string_view kAlnum =
        "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
    switch (fault) {
    case ToolFault::None:
    case ToolFault::Slow:
    case ToolFault::VerySlow:
    case ToolFault::Hang:
        return 0;
    case ToolFault::Empty:
        out.clear();
        return 0;
    case ToolFault::Short:
        out.resize(out.size() / 2);
        return 0;
    case ToolFault::Garbage:
        for (char &c : out)
            if (std::isalnum(static_cast<unsigned char>(c)) != 0)
                c = kAlnum[junkByteLocked() % kAlnum.size()];
        return 0;
    case ToolFault::Error:
        out = program + ": cannot open /dev/spidev2.0: Device or resource busy\n";
        return 1 << 8;
    case ToolFault::Overlong:
        std::replace(out.begin(), out.end(), '\n', ' ');
        out.append(8192, 'x');
        return 0;
    case ToolFault::Binary:
        out.resize(600);
        for (char &c : out)
            c = static_cast<char>(junkByteLocked() % 4 == 0 ? 0 : junkByteLocked());
        return 0;
    case ToolFault::ExitStatus:
        return 1 << 8;
    }
    return 0;
}

void ShellTools::setToolFault(const std::string &program, ToolFault fault)
{
    const BoardLocker lock(mutex_);
    if (fault == ToolFault::None)
        toolFaults_.erase(program);
    else
        toolFaults_[program] = fault;
}

void ShellTools::onCommand(const std::string &line, const std::string &output)
{
    const BoardLocker lock(mutex_);
    rules_.push_back({line, output, false, false, false});
}

void ShellTools::onCommandOnce(const std::string &line, const std::string &output)
{
    const BoardLocker lock(mutex_);
    rules_.push_back({line, output, false, true, false});
}

void ShellTools::failCommand(const std::string &line)
{
    const BoardLocker lock(mutex_);
    rules_.push_back({line, "", true, false, false});
}

void ShellTools::setToolAbsent(const std::string &tool, bool absent)
{
    const BoardLocker lock(mutex_);
    absentTools_.erase(std::remove(absentTools_.begin(), absentTools_.end(), tool),
                       absentTools_.end());
    if (absent)
        absentTools_.push_back(tool);
}

std::vector<CommandRecord> ShellTools::commands() const
{
    const BoardLocker lock(mutex_);
    return commands_;
}

std::vector<CommandRecord> ShellTools::commands(std::size_t from) const
{
    const BoardLocker lock(mutex_);
    return {commands_.begin() + static_cast<std::ptrdiff_t>(std::min(from, commands_.size())),
            commands_.end()};
}

std::size_t ShellTools::countCommand(const std::string &line) const
{
    const BoardLocker lock(mutex_);
    std::size_t count = 0;
    for (const CommandRecord &c : commands_)
        count += c.line == line ? 1U : 0U;
    return count;
}

void ShellTools::clearRules()
{
    const BoardLocker lock(mutex_);
    rules_.clear();
    toolFaults_.clear();
}

void ShellTools::clearCommands()
{
    const BoardLocker lock(mutex_);
    commands_.clear();
}

void ShellTools::dropHistoryLocked()
{
    commands_.clear();
    commands_.shrink_to_fit();
}

std::string ShellTools::eth0Address() const
{
    const BoardLocker lock(mutex_);
    return eth0_;
}

} // namespace zarvent::sim
