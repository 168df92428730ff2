// The command runner's line reading, over output that arrives in pieces:
// overlong lines, no final newline, NUL bytes. The same output also stands
// for what "ntpq -p | grep '*G'" printed, of which only its presence counts.
#include "fuzz.h"
#include "hardware/runner.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace zarvent;
    using fuzz::require;
    const std::uint8_t mode = fuzz::take(data, size);
    const int calls = 1 + mode % 8;
    const bool startable = (mode & 0x40) == 0;
    const std::size_t bufferSize = 2 + fuzz::take(data, size);
    fuzz::FakePlatform platform;
    const std::size_t piece = 1 + std::size_t{fuzz::take(data, size)};
    platform.pieces = {piece, 1 + std::size_t{fuzz::take(data, size)}};
    // Each read costs the runner a 4 KiB buffer clear: long output in tiny
    // pieces would spend the run on clearing, not on new inputs.
    const fuzz::Text text(data, std::min(size, 64 * (piece + platform.pieces[1])));
    const std::string_view output = text.view();
    std::string ran;
    platform.commands = [&](const std::string &line) -> std::optional<std::string> {
        ran = line;
        if (!startable)
            return std::nullopt;
        return std::string(output);
    };
    Runner runner(platform);

    // fgets into the buffer: each call takes up to a newline or bufferSize - 1
    // bytes, and its text ends at a NUL; at the end the buffer stays as it was.
    int count = 0;
    std::string last;
    for (std::size_t at = 0; count < calls && at < output.size() && startable; ++count) {
        std::size_t n = 0;
        while (n < bufferSize - 1 && at + n < output.size())
            if (output[at + n++] == '\n')
                break;
        const std::string_view line = output.substr(at, n);
        last = line.substr(0, line.find('\0'));
        at += n;
    }
    const CommandLines got = runner.readLines("ntpq -c clockvar", calls, bufferSize);
    require(ran == "ntpq -c clockvar" && got.started == startable);
    require(got.count == count && got.count <= calls && got.last == last);
    require(got.last.size() < bufferSize && output.find(got.last) != std::string_view::npos);

    // A query that could not start is no answer either way.
    const std::optional<bool> present = runner.hasOutput("ntpq -p | grep '*G'");
    require(startable ? present == !output.empty() : !present.has_value());
    require(ran == "ntpq -p | grep '*G'");
    // Every command was closed once, and only after all it printed was read.
    require(platform.waited == platform.started && platform.unreadAtWait == 0);
    return 0;
}
