// The board's files: every path maps into a per-run directory tree (absolute
// paths under the root, relative ones under the working directory
// /usr/bin/Zarvent); nothing outside it is touched. Directories can be made
// read-only and opens made to fail; /ramcache is a RAM disk of its own once
// mounted, with the size mkfs gave it, and can be made full.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "board_clock.h"
#include "board_lock.h"
#include "platform/platform.h"

namespace zarvent::sim {

// The daemon's working directory on the board, where its tools lie.
inline constexpr const char *kWorkDir = "/usr/bin/Zarvent";

// A host file's content; nothing when it cannot be read.
std::optional<std::string> readHostFile(const std::string &hostPath);
// Replaces a host file's content; false when it cannot be written.
bool writeHostFile(const std::string &hostPath, const std::string &content);

class BoardFiles {
  public:
    // A tree in a new temporary directory (root empty), removed by the
    // destructor, or in root (created when missing and kept: the
    // simulator's outputs).
    BoardFiles(BoardMutex &mutex, BoardClock &clock, const std::string &root);
    ~BoardFiles();
    BoardFiles(const BoardFiles &) = delete;
    BoardFiles &operator=(const BoardFiles &) = delete;

    // Host path of a board path (absolute, or relative to /usr/bin/Zarvent).
    std::string hostPath(const std::string &boardPath) const;
    // Writes text to a board path, parents created.
    void writeFile(const std::string &boardPath, const std::string &text);
    std::optional<std::string> readFile(const std::string &boardPath) const;
    bool exists(const std::string &boardPath) const;
    // Opens for writing, creating, removing or renaming under a board
    // directory fail with EROFS while it is read-only.
    void setReadOnly(const std::string &boardDirectory, bool readOnly);
    // Every open of the board path fails with the given errno (0: no longer).
    void failOpen(const std::string &boardPath, int error);
    // The RAM disk's size as mkfs made it: blocks of 1 KiB and inodes.
    void setRamDisk(std::uint64_t blocks, std::uint64_t inodes);
    // The RAM disk is full: writes to its files fail with ENOSPC (noSpace),
    // new files cannot be made (noInodes), and it reports itself so.
    void setRamDiskFull(bool noSpace, bool noInodes);
    // Board paths outside /ramcache/zarvent the daemon has opened for writing
    // (sysfs and the SPI device aside), each once.
    std::vector<std::string> writtenPaths() const;

    // ---- for the seam
    std::vector<std::string> listDirectory(const std::string &path) const;
    bool removeFile(const std::string &path);
    bool makeDirectory(const std::string &path);
    bool renameFile(const std::string &from, const std::string &to);
    std::optional<std::int64_t> fileSize(const std::string &path) const;
    std::optional<FileSystemUsage> fileSystemUsage(const std::string &path);
    // /ramcache lies on a device of its own once the RAM disk is mounted.
    std::optional<std::uint64_t> deviceOf(const std::string &path) const;
    // The errno every open of the path fails with (0: none).
    int openErrorLocked(const std::string &path) const REQUIRES(kBoardLock);
    // Opens a file of the tree: a host descriptor, or -1 with errno.
    int openLocked(const std::string &path, int flags) REQUIRES(kBoardLock);
    // A write to the descriptor fails for want of space.
    bool noSpaceLocked(int fd) const REQUIRES(kBoardLock);
    void closedLocked(int fd) REQUIRES(kBoardLock);

    // ---- for the shell's tools
    bool readOnlyLocked(const std::string &boardPath) const REQUIRES(kBoardLock);
    // mount /dev/ram1 /ramcache.
    void mountRamDiskLocked() REQUIRES(kBoardLock);
    bool ramDiskMountedLocked() const REQUIRES(kBoardLock);

  private:
    FileSystemUsage ramDiskUsageLocked() const REQUIRES(kBoardLock);

    BoardMutex &mutex_;
    BoardClock &clock_;
    std::string root_;
    bool temporary_ = false;
    std::vector<std::string> readOnly_ GUARDED_BY(kBoardLock);
    std::map<std::string, int> failedOpens_ GUARDED_BY(kBoardLock);
    bool mounted_ GUARDED_BY(kBoardLock) = false;
    std::uint64_t ramBlocks_ GUARDED_BY(kBoardLock) = 8192;
    std::uint64_t ramInodes_ GUARDED_BY(kBoardLock) = 2048;
    // The RAM disk's usage as last counted. Counting walks every file on it
    // (a thousand chart files); the daemon asks once a steered second, so the
    // count is kept for a minute of board time, and counted again at once
    // after the daemon removes a file or the disk is made anew.
    std::optional<FileSystemUsage> ramUsage_ GUARDED_BY(kBoardLock);
    std::int64_t ramUsageAtUs_ GUARDED_BY(kBoardLock) = 0;
    bool ramNoSpace_ GUARDED_BY(kBoardLock) = false;
    bool ramNoInodes_ GUARDED_BY(kBoardLock) = false;
    std::set<int> ramFds_ GUARDED_BY(kBoardLock);
    std::set<std::string> written_ GUARDED_BY(kBoardLock);
};

} // namespace zarvent::sim
