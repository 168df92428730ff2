#include "hardware/runner.h"

#include <array>
#include <cstring>
#include <memory>
#include <vector>

namespace zarvent {

namespace {

// Output read and dropped before a command is closed. A tool that never stops
// printing must not hold the daemon for good: beyond this much, the pipe is
// closed anyway.
constexpr std::size_t kDrainLimit = 1 << 20;

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

    int close()
    {
        if (!command_)
            return -1;
        std::size_t drained = 0;
        while (drained < kDrainLimit && refill())
            drained += size_;
        next_ = size_;
        const int status = command_->wait();
        command_.reset();
        return status;
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
};

} // namespace

bool Runner::run(const std::string &line, PipeMode mode)
{
    auto command = platform_.startCommand(line, mode);
    if (!command)
        return false;
    Pipe(std::move(command)).close();
    return true;
}

CommandLines Runner::readLines(const std::string &line, int calls, std::size_t bufferSize)
{
    CommandLines result;
    auto command = platform_.startCommand(line, PipeMode::Read);
    if (!command)
        return result;
    result.started = true;
    Pipe pipe(std::move(command));
    for (int i = 0; i < calls && pipe.readLine(result.last, bufferSize); ++i)
        ++result.count;
    pipe.close();
    return result;
}

bool Runner::hasOutput(const std::string &line)
{
    auto command = platform_.startCommand(line, PipeMode::Read);
    if (!command)
        return false; // a query that cannot be started finds nothing
    Pipe pipe(std::move(command));
    const bool printed = pipe.anyOutput();
    pipe.close();
    return printed;
}

} // namespace zarvent
