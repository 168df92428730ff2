// The leap-second list as the supervision thread reads it at start: through a
// scratch file and "tail -n 1", from a file that arrives in pieces.
#include "fuzz.h"
#include "hardware/runner.h"
#include "supervision/leap.h"

namespace {

// The offset at column 11 of a line, read with "%i"; 0 when there is none.
std::int32_t offsetOf(std::string_view line)
{
    return line.size() <= 11 ? 0 : zarvent::fuzz::strtolValue(line.substr(11), 0).value_or(0);
}

// One fgets into a 100-byte buffer: at most 99 bytes, up to and including a newline.
std::string_view fgetsPiece(std::string_view text)
{
    const std::size_t newline = text.substr(0, 99).find('\n');
    return text.substr(0, newline == std::string_view::npos ? 99 : newline + 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace zarvent;
    using fuzz::require;
    const std::size_t piece = 1 + fuzz::take(data, size);
    const fuzz::Text list(data, size);
    require(leapOffsetOfLine(list.view()) == offsetOf(list.view()));

    // 238 reads of the list; each that does not start with '#' goes to the
    // scratch file up to its first NUL, the last one again once the list ended.
    std::string scratch;
    std::string buffer;
    std::string_view rest = list.view();
    for (int i = 0; i < 238; ++i) {
        if (!rest.empty()) {
            buffer = fgetsPiece(rest);
            rest.remove_prefix(buffer.size());
        }
        if (buffer.empty() || buffer[0] != '#')
            scratch += buffer.c_str();
    }
    // "tail -n 1": the last line, with its newline if it has one.
    std::size_t from = scratch.empty() ? 0 : scratch.size() - 1;
    while (from > 0 && scratch[from - 1] != '\n')
        --from;
    const std::string tail = scratch.substr(from);

    fuzz::FakePlatform platform;
    platform.pieces = {piece, 4096};
    platform.files["/leap-seconds.list"] = std::string(list.view());
    platform.commands = [&](const std::string &line) -> std::optional<std::string> {
        if (line == "tail -n 1 temp") {
            require(platform.files["temp"] == scratch);
            return tail;
        }
        require(line == "rm temp");
        platform.files.erase("temp");
        return "";
    };
    Runner runner(platform);
    require(readTaiOffset(platform, runner) == offsetOf(fgetsPiece(tail)));
    require(!platform.files.contains("temp") && platform.openFds() == 0 && platform.started == 2 &&
            platform.waited == 2);
    return 0;
}
