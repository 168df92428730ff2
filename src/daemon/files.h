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
// cannot be opened.
bool touchFile(Platform &platform, const std::string &path);

// A file opened for writing, truncated ("w") or appended to ("a"). What is
// written is kept and goes to the file in one write when it is closed.
class OutputFile {
  public:
    enum class Mode { Truncate, Append };
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
    // Writes what was written and closes; false when not all of it went out.
    bool close();

  private:
    Platform &platform_;
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
