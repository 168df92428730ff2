#include "supervision/leap.h"

#include <cstring>
#include <fcntl.h>
#include <string>

#include "platform/files.h"
#include "hardware/parsers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

namespace zarvent {

namespace {
constexpr int kLinesRead = 238;
constexpr std::size_t kLineBuffer = 100;
constexpr std::size_t kOffsetColumn = 11;
} // namespace

std::int32_t leapOffsetOfLine(std::string_view line)
{
    if (line.size() <= kOffsetColumn)
        return 0;
    return parseInteger(line.substr(kOffsetColumn)).value_or(0);
}

// The list's non-comment lines go through a scratch file and "tail -n 1", so
// a working directory that cannot be written gives -1, as the board's
// software has always reported it.
std::int32_t readTaiOffset(Platform &platform, Runner &runner)
{
    const auto list = readFileStart(platform, "/leap-seconds.list", kLinesRead * (kLineBuffer - 1));
    if (!list)
        return -1;
    {
        // A scratch file that cannot be written whole (a full disk) gives
        // no offset: a part of the list could name an older one.
        OutputFile temp(platform, "temp", OutputFile::Mode::Replace);
        if (!temp.isOpen())
            return -1;
        // Exactly 238 line reads: after the end of the list a read leaves the
        // buffer as it was, so the last line read is copied again unless it
        // is a comment.
        std::string_view rest = *list;
        std::string buffer;
        for (int i = 0; i < kLinesRead; ++i) {
            const std::size_t piece = linePiece(rest, kLineBuffer);
            if (piece > 0) {
                buffer.assign(rest.substr(0, piece));
                rest.remove_prefix(piece);
            }
            if (buffer.empty() || buffer[0] != '#')
                temp.write(std::string_view(buffer.c_str(), std::strlen(buffer.c_str())));
        }
        if (!temp.close())
            return -1;
    }
    UniqueFd again(platform, platform.open("temp", O_RDONLY));
    if (!again.isValid())
        return -1;
    const CommandLines last = runner.readLines("tail -n 1 temp", 1);
    if (!last.started)
        return -1;
    const std::int32_t result = last.count == 1 ? leapOffsetOfLine(last.last) : 0;
    again.reset();
    if (!runner.run("rm temp", PipeMode::Write))
        return -1;
    return result;
}

} // namespace zarvent
