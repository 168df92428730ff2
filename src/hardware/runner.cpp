#include "hardware/runner.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <sys/wait.h>

namespace zarvent {

std::string_view commandProgram(std::string_view line)
{
    const std::string_view first = line.substr(0, line.find_first_of(" \t\n;|&"));
    const std::size_t slash = first.rfind('/');
    return slash == std::string_view::npos ? first : first.substr(slash + 1);
}

Deadline commandDeadline(std::string_view line)
{
    const std::string_view program = commandProgram(line);
    if (program == "spiWrite")
        return kRegisterToolDeadline;
    if (program == "ntptime")
        return kNtptimeDeadline;
    if (program == "ntpq")
        return line.starts_with("ntpq -p") ? kPeersDeadline : kClockvarDeadline;
    if (program == "wrFPGA")
        return kLoaderDeadline;
    if (program == "mkfs")
        return kMkfsDeadline;
    if (program == "mount" || program == "mversion")
        return kMountDeadline;
    return kShellDeadline;
}

namespace {

// A started command and the bytes of its output not yet handed out.
class Pipe {
  public:
    explicit Pipe(std::unique_ptr<Command> command) : command_(std::move(command)) {}
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
    ~Pipe()
    {
        close();
    }

    // One line into a buffer of bufferSize bytes: false at the end of the
    // output (the buffer is then left as it was).
    bool readLine(std::string &buffer, std::size_t bufferSize)
    {
        std::string line;
        while (line.size() + 1 < bufferSize) {
            if (next_ == size_ && !refill())
                break;
            const char c = chunk_[next_++];
            line.push_back(c);
            if (c == '\n')
                break;
        }
        if (line.empty())
            return false;
        line.resize(std::strlen(line.c_str()));
        buffer = std::move(line);
        return true;
    }

    // True when the command printed at least one byte.
    bool anyOutput()
    {
        return next_ < size_ || refill();
    }

    // Drains the rest of the output, waits for the command and returns its
    // wait status; -1 when it was killed at its deadline. The drain has no
    // limit of its own: a tool that never stops printing is killed at its
    // deadline, and one that prints a lot while it works finishes its work.
    int close()
    {
        if (!command_)
            return status_;
        while (refill()) {
        }
        next_ = size_;
        status_ = command_->wait();
        timedOut_ = command_->timedOut();
        if (timedOut_)
            status_ = -1;
        command_.reset();
        return status_;
    }

    bool timedOut() const
    {
        return timedOut_;
    }

  private:
    bool refill()
    {
        // A fixed buffer: a tool that prints a byte at a time costs a read
        // each, not a clearing of the whole buffer each.
        const long got = command_->read(chunk_);
        size_ = got > 0 ? static_cast<std::size_t>(got) : 0;
        next_ = 0;
        return got > 0;
    }

    std::unique_ptr<Command> command_;
    std::array<char, 4096> chunk_{};
    std::size_t size_ = 0; // bytes of chunk_ the last read filled
    std::size_t next_ = 0;
    int status_ = -1;
    bool timedOut_ = false;
};

} // namespace

std::unique_ptr<Command> Runner::start(const std::string &line, PipeMode mode)
{
    auto command = platform_.startCommand(line, mode, commandDeadline(line));
    // The seam refuses a program whose killed command is still stuck in its
    // driver (EAGAIN): the metrics say so while it lasts.
    const bool refused = !command && errno == EAGAIN;
    {
        const MutexLocker lock(mutex_);
        const std::string_view program = commandProgram(line);
        auto found = tools_.find(program);
        if (found == tools_.end())
            found = tools_.emplace(std::string(program), ToolRecord{}).first;
        found->second.counts.refused = refused;
    }
    if (!command)
        account(line, -1, false);
    return command;
}

std::optional<int> Runner::run(const std::string &line, PipeMode mode, bool *timedOut)
{
    auto command = start(line, mode);
    if (timedOut != nullptr)
        *timedOut = false;
    if (!command)
        return std::nullopt;
    Pipe pipe(std::move(command));
    const int status = pipe.close();
    account(line, status, pipe.timedOut());
    if (pipe.timedOut()) {
        if (timedOut != nullptr)
            *timedOut = true;
        return std::nullopt;
    }
    return status;
}

CommandLines Runner::readLines(const std::string &line, int calls, std::size_t bufferSize)
{
    CommandLines result;
    auto command = start(line, PipeMode::Read);
    if (!command)
        return result;
    Pipe pipe(std::move(command));
    for (int i = 0; i < calls && pipe.readLine(result.last, bufferSize); ++i) {
        ++result.count;
        result.lines.push_back(result.last);
    }
    const int status = pipe.close();
    account(line, status, pipe.timedOut());
    result.started = true;
    // What a command printed before it was killed may be half a line of a
    // register's value: none of it is used.
    if (pipe.timedOut()) {
        result = CommandLines{};
        result.started = true;
        result.timedOut = true;
    }
    return result;
}

std::optional<bool> Runner::hasOutput(const std::string &line)
{
    auto command = start(line, PipeMode::Read);
    if (!command)
        return std::nullopt;
    Pipe pipe(std::move(command));
    const bool printed = pipe.anyOutput();
    const int status = pipe.close();
    // grep's status 1: no line matched, which is the answer "absent".
    const bool noMatch = status > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 1;
    account(line, noMatch ? 0 : status, pipe.timedOut());
    if (pipe.timedOut())
        return std::nullopt;
    return printed;
}

void Runner::countFailedRead(const char *what)
{
    const MutexLocker lock(mutex_);
    ++failedReads_[what];
}

std::map<std::string, ToolCounts, std::less<>> Runner::toolCounts() const
{
    std::map<std::string, ToolCounts, std::less<>> counts;
    const MutexLocker lock(mutex_);
    for (const auto &[program, record] : tools_)
        counts.emplace(program, record.counts);
    return counts;
}

std::map<std::string, std::uint64_t, std::less<>> Runner::failedReads() const
{
    const MutexLocker lock(mutex_);
    return failedReads_;
}

void Runner::account(const std::string &line, int status, bool timedOut)
{
    // An episode ends after a minute without a time-out: a tool that hangs on
    // one command line and answers on others is one episode, not one a second.
    constexpr std::int64_t kEpisodeQuietNs = 60'000'000'000;
    const std::string_view program = commandProgram(line);
    const std::int64_t now = platform_.monotonicNs();
    std::string message;
    {
        const MutexLocker lock(mutex_);
        auto found = tools_.find(program);
        if (found == tools_.end())
            found = tools_.emplace(std::string(program), ToolRecord{}).first;
        ToolRecord &record = found->second;
        ++record.counts.run;
        if (timedOut) {
            ++record.counts.timedOut;
            record.lastTimeoutNs = now;
            // The journal hears of a hanging tool once, with the command
            // line that hung, not once per second while it goes on hanging.
            if (record.episodeTimeouts++ == 0)
                message = "zarvent: " + std::string(program) + " did not finish within " +
                          std::to_string(std::chrono::duration_cast<std::chrono::seconds>(
                                             commandDeadline(line))
                                             .count()) +
                          " s, its process group killed: " +
                          line.substr(0, line.find_last_not_of('\n') + 1) + "\n";
        } else {
            if (status != 0)
                ++record.counts.failed;
            if (status != -1 && record.episodeTimeouts != 0 &&
                now - record.lastTimeoutNs >= kEpisodeQuietNs) {
                message = "zarvent: " + std::string(program) +
                          " finishes in time again after a minute without a time-out (" +
                          std::to_string(record.episodeTimeouts) + " commands timed out)\n";
                record.episodeTimeouts = 0;
            }
        }
    }
    if (!message.empty())
        platform_.writeError(message);
}

} // namespace zarvent
