#include "daemon/files.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>

namespace zarvent {

std::optional<std::string> readFileStart(Platform &platform, const std::string &path,
                                         std::size_t maxBytes)
{
    UniqueFd fd(platform, platform.open(path, O_RDONLY));
    if (!fd.isValid())
        return std::nullopt;
    std::string content(maxBytes, '\0');
    std::size_t have = 0;
    while (have < maxBytes) {
        const long got =
            platform.read(fd.get(), std::span<char>(content.data() + have, maxBytes - have));
        if (got <= 0)
            break;
        have += static_cast<std::size_t>(got);
    }
    content.resize(have);
    return content;
}

bool touchFile(Platform &platform, const std::string &path)
{
    UniqueFd fd(platform, platform.open(path, O_WRONLY | O_CREAT | O_TRUNC));
    return fd.isValid();
}

OutputFile::OutputFile(Platform &platform, const std::string &path, Mode mode)
    : platform_(platform),
      fd_(platform,
          platform.open(path, O_WRONLY | O_CREAT | (mode == Mode::Append ? O_APPEND : O_TRUNC)))
{}

OutputFile::~OutputFile()
{
    close();
}

bool OutputFile::close()
{
    if (!fd_.isValid())
        return false;
    std::string_view rest = pending_;
    bool complete = true;
    while (!rest.empty()) {
        const long done = platform_.write(fd_.get(), rest);
        if (done <= 0) {
            complete = false; // a full RAM disk: what did not fit is lost
            break;
        }
        rest.remove_prefix(static_cast<std::size_t>(done));
    }
    pending_.clear();
    fd_.reset();
    return complete;
}

std::string formatText(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int size = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text(static_cast<std::size_t>(size > 0 ? size : 0) + 1, '\0');
    (void)std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return text;
}

std::size_t linePiece(std::string_view text, std::size_t bufferSize)
{
    const std::size_t most = bufferSize > 0 ? bufferSize - 1 : 0;
    const std::size_t newline = text.substr(0, most).find('\n');
    if (newline != std::string_view::npos)
        return newline + 1;
    return std::min(most, text.size());
}

} // namespace zarvent
