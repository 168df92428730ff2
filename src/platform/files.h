// Small file operations over the OS seam, as the daemon uses them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/platform.h"

namespace zarvent {

// At most maxBytes from the start of a file; nothing when it cannot be opened.
std::optional<std::string> readFileStart(Platform &platform, const std::string &path,
                                         std::size_t maxBytes);

// Creates the file empty, or empties it ("w" and close); false when it
// cannot be opened. A symbolic link in its place is replaced by the file,
// never followed: the directories the daemon writes may be writable by others
// (/ftpdir), and the daemon runs as root.
bool touchFile(Platform &platform, const std::string &path);

// A file the daemon writes, never through a symbolic link. What is written is
// kept and goes out when close() is called, which says whether all of it did;
// a file dropped without close() writes nothing (a Replace file leaves the old
// one as it was):
// - Replace: the whole new content into a temporary file beside it, renamed
//   over the old one once all of it is written; a reader sees the old file or
//   the new one, never a part, and a write that fails (a full RAM disk)
//   leaves the old file as it was;
// - Append: added at the end in one write, so that a reader never sees half
//   a line and two writers never interleave.
class OutputFile {
  public:
    enum class Mode { Replace, Append };
    OutputFile(Platform &platform, const std::string &path, Mode mode);
    ~OutputFile();
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    bool isOpen() const
    {
        return fd_.isValid();
    }
    void write(std::string_view text)
    {
        pending_.append(text);
    }
    // Writes what was written and closes; false when not all of it went out
    // (a Replace file then keeps its old content).
    [[nodiscard]] bool close();

  private:
    Platform &platform_;
    Mode mode_;
    std::string path_;
    std::string temporary_; // Replace: the file written before the rename
    UniqueFd fd_;
    std::string pending_;
};

// printf into a string.
std::string formatText(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The length of the piece a C line read (fgets with a buffer of bufferSize
// bytes) takes from the start of text: up to and including a newline, at most
// bufferSize - 1 characters.
std::size_t linePiece(std::string_view text, std::size_t bufferSize);

} // namespace zarvent
