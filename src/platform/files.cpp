#include "platform/files.h"

#include <algorithm>
#include <cerrno>
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

namespace {

// Opens path for writing without following a symbolic link at its place: a
// link found there (ELOOP) is removed and the file made anew, exclusively,
// so that nothing planted between the two steps is written through either.
// O_NONBLOCK: a FIFO planted in place of the file fails the open instead of
// holding the thread until someone reads it; regular files ignore it.
int openNoFollow(Platform &platform, const std::string &path, int flags)
{
    flags |= O_NONBLOCK;
    const int fd = platform.open(path, flags | O_NOFOLLOW);
    if (fd >= 0 || errno != ELOOP)
        return fd;
    platform.removeFile(path);
    return platform.open(path, (flags & ~O_TRUNC) | O_CREAT | O_EXCL | O_NOFOLLOW);
}

} // namespace

bool touchFile(Platform &platform, const std::string &path)
{
    UniqueFd fd(platform, openNoFollow(platform, path, O_WRONLY | O_CREAT | O_TRUNC));
    return fd.isValid();
}

OutputFile::OutputFile(Platform &platform, const std::string &path, Mode mode)
    : platform_(platform), mode_(mode), path_(path)
{
    if (mode == Mode::Append) {
        fd_ = UniqueFd(platform, openNoFollow(platform, path, O_WRONLY | O_CREAT | O_APPEND));
        return;
    }
    // ".name.new" beside the file: on the same file system, so the rename is
    // atomic, and named unlike every file a reader looks for. One left by a
    // daemon that was killed while writing, or planted, is removed first.
    const std::size_t slash = path.rfind('/');
    const std::size_t nameAt = slash == std::string::npos ? 0 : slash + 1;
    temporary_ = path.substr(0, nameAt) + "." + path.substr(nameAt) + ".new";
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    int fd = platform.open(temporary_, kFlags);
    if (fd < 0 && errno == EEXIST) {
        platform.removeFile(temporary_);
        fd = platform.open(temporary_, kFlags);
    }
    fd_ = UniqueFd(platform, fd);
}

OutputFile::~OutputFile()
{
    // Not closed: nothing of it is kept.
    if (fd_.isValid()) {
        fd_.reset();
        if (mode_ == Mode::Replace)
            platform_.removeFile(temporary_);
    }
}

bool OutputFile::close()
{
    if (!fd_.isValid())
        return false;
    bool complete = true;
    if (mode_ == Mode::Append) {
        // One write: a full RAM disk takes the line whole or not at all as
        // far as the file system allows, and a second call would put the
        // rest of the line after another writer's.
        const long done = pending_.empty() ? 0 : platform_.write(fd_.get(), pending_);
        complete = done == static_cast<long>(pending_.size());
    } else {
        std::string_view rest = pending_;
        while (!rest.empty()) {
            const long done = platform_.write(fd_.get(), rest);
            if (done <= 0) {
                complete = false; // a full RAM disk: the old file stays
                break;
            }
            rest.remove_prefix(static_cast<std::size_t>(done));
        }
    }
    pending_.clear();
    fd_.reset();
    if (mode_ == Mode::Replace) {
        if (complete)
            complete = platform_.renameFile(temporary_, path_);
        if (!complete)
            platform_.removeFile(temporary_);
    }
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
