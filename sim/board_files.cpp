#include "board_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace zarvent::sim {

namespace fs = std::filesystem;

namespace {

// The board path with relative paths resolved against the working directory.
std::string absolutePath(const std::string &boardPath)
{
    const std::string path =
        boardPath.starts_with('/') ? boardPath : std::string(kWorkDir) + "/" + boardPath;
    std::string normal = fs::path(path).lexically_normal().generic_string();
    if (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal;
}

bool opensForWriting(int flags)
{
    return (flags & O_ACCMODE) == O_WRONLY || (flags & O_ACCMODE) == O_RDWR ||
           (flags & (O_CREAT | O_TRUNC | O_APPEND)) != 0;
}

bool onRamDisk(const std::string &boardPath)
{
    return boardPath == "/ramcache" || boardPath.starts_with("/ramcache/");
}

void makeWritable(const fs::path &dir)
{
    // A directory made read-only must be opened up before its tree is removed.
    std::error_code error;
    fs::permissions(dir, fs::perms::owner_all, fs::perm_options::add, error);
    for (const auto &entry : fs::directory_iterator(dir, error))
        if (entry.is_directory(error) && !entry.is_symlink(error))
            makeWritable(entry.path());
}

} // namespace

std::optional<std::string> readHostFile(const std::string &hostPath)
{
    std::ifstream in(hostPath, std::ios::binary);
    if (!in)
        return std::nullopt;
    std::ostringstream content;
    content << in.rdbuf();
    return std::move(content).str();
}

bool writeHostFile(const std::string &hostPath, const std::string &content)
{
    std::ofstream out(hostPath, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

BoardFiles::BoardFiles(BoardMutex &mutex, BoardClock &clock, const std::string &root)
    : mutex_(mutex), clock_(clock)
{
    std::error_code error;
    if (!root.empty()) {
        root_ = root;
        fs::create_directories(root, error);
    } else {
        const char *tmp = std::getenv("TMPDIR");
        std::string pattern =
            std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/zarvent-board-XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::system_error(errno, std::generic_category(), "mkdtemp " + pattern);
        root_ = pattern;
        temporary_ = true;
    }
    fs::create_directories(hostPath(kWorkDir), error);
    fs::create_directories(hostPath("/sys/class/gpio"), error);
}

BoardFiles::~BoardFiles()
{
    if (temporary_) {
        makeWritable(root_);
        std::error_code error;
        fs::remove_all(root_, error);
    }
}

std::string BoardFiles::hostPath(const std::string &boardPath) const
{
    return boardPath.starts_with('/') ? root_ + boardPath : root_ + kWorkDir + "/" + boardPath;
}

void BoardFiles::writeFile(const std::string &boardPath, const std::string &text)
{
    const std::string path = hostPath(boardPath);
    std::error_code error;
    fs::create_directories(fs::path(path).parent_path(), error);
    writeHostFile(path, text);
}

std::optional<std::string> BoardFiles::readFile(const std::string &boardPath) const
{
    return readHostFile(hostPath(boardPath));
}

bool BoardFiles::exists(const std::string &boardPath) const
{
    struct stat st {};
    return ::stat(hostPath(boardPath).c_str(), &st) == 0;
}

void BoardFiles::setReadOnly(const std::string &boardDirectory, bool readOnly)
{
    const BoardLocker lock(mutex_);
    const std::string dir = absolutePath(boardDirectory);
    readOnly_.erase(std::remove(readOnly_.begin(), readOnly_.end(), dir), readOnly_.end());
    if (readOnly)
        readOnly_.push_back(dir);
}

void BoardFiles::failOpen(const std::string &boardPath, int error)
{
    const BoardLocker lock(mutex_);
    if (error == 0)
        failedOpens_.erase(absolutePath(boardPath));
    else
        failedOpens_[absolutePath(boardPath)] = error;
}

void BoardFiles::setRamDisk(std::uint64_t blocks, std::uint64_t inodes)
{
    const BoardLocker lock(mutex_);
    ramBlocks_ = blocks;
    ramInodes_ = inodes;
    ramUsage_.reset();
}

void BoardFiles::setRamDiskFull(bool noSpace, bool noInodes)
{
    const BoardLocker lock(mutex_);
    ramNoSpace_ = noSpace;
    ramNoInodes_ = noInodes;
}

std::vector<std::string> BoardFiles::writtenPaths() const
{
    const BoardLocker lock(mutex_);
    return {written_.begin(), written_.end()};
}

bool BoardFiles::readOnlyLocked(const std::string &boardPath) const
{
    const std::string path = absolutePath(boardPath);
    return std::any_of(readOnly_.begin(), readOnly_.end(), [&](const std::string &dir) {
        return path == dir || path.starts_with(dir + "/");
    });
}

int BoardFiles::openErrorLocked(const std::string &path) const
{
    const auto failed = failedOpens_.find(absolutePath(path));
    return failed != failedOpens_.end() ? failed->second : 0;
}

int BoardFiles::openLocked(const std::string &path, int flags)
{
    if (opensForWriting(flags) && readOnlyLocked(path)) {
        errno = EROFS;
        return -1;
    }
    const std::string absolute = absolutePath(path);
    const bool ramFile = absolute.starts_with("/ramcache/");
    if (ramFile && ramNoInodes_ && (flags & O_CREAT) != 0 &&
        ::access(hostPath(path).c_str(), F_OK) != 0) {
        errno = ENOSPC;
        return -1;
    }
    // The daemon's output directory takes a new chart file name every minute:
    // only paths outside it are kept, so that the set stays small.
    if (opensForWriting(flags) && !absolute.starts_with("/ramcache/zarvent/"))
        written_.insert(absolute);
    const int fd = ::open(hostPath(path).c_str(), flags | O_CLOEXEC, 0666);
    if (fd >= 0 && ramFile)
        ramFds_.insert(fd);
    return fd;
}

bool BoardFiles::noSpaceLocked(int fd) const
{
    return ramNoSpace_ && ramFds_.contains(fd);
}

void BoardFiles::closedLocked(int fd)
{
    ramFds_.erase(fd);
}

void BoardFiles::mountRamDiskLocked()
{
    std::error_code error;
    fs::create_directories(hostPath("/ramcache"), error);
    mounted_ = true;
    ramUsage_.reset();
}

bool BoardFiles::ramDiskMountedLocked() const
{
    return mounted_;
}

std::vector<std::string> BoardFiles::listDirectory(const std::string &path) const
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator(hostPath(path), error))
        names.push_back(entry.path().filename().string());
    // Sorted: the host file system's order must not change a run.
    std::sort(names.begin(), names.end());
    return names;
}

bool BoardFiles::removeFile(const std::string &path)
{
    {
        const BoardLocker lock(mutex_);
        if (readOnlyLocked(path)) {
            errno = EROFS;
            return false;
        }
        ramUsage_.reset();
    }
    return ::unlink(hostPath(path).c_str()) == 0;
}

bool BoardFiles::makeDirectory(const std::string &path)
{
    {
        const BoardLocker lock(mutex_);
        if (readOnlyLocked(path)) {
            errno = EROFS;
            return false;
        }
    }
    return ::mkdir(hostPath(path).c_str(), 0755) == 0 || errno == EEXIST;
}

bool BoardFiles::renameFile(const std::string &from, const std::string &to)
{
    {
        const BoardLocker lock(mutex_);
        if (readOnlyLocked(from) || readOnlyLocked(to)) {
            errno = EROFS;
            return false;
        }
        // A file renamed over another (the status page every second) frees
        // what the new one takes: the count of a minute ago still holds.
    }
    return std::rename(hostPath(from).c_str(), hostPath(to).c_str()) == 0;
}

std::optional<std::uint64_t> BoardFiles::deviceOf(const std::string &path) const
{
    const BoardLocker lock(mutex_);
    return mounted_ && onRamDisk(absolutePath(path)) ? 2 : 1;
}

std::optional<std::int64_t> BoardFiles::fileSize(const std::string &path) const
{
    struct stat st {};
    if (::stat(hostPath(path).c_str(), &st) != 0)
        return std::nullopt;
    return static_cast<std::int64_t>(st.st_size);
}

std::optional<FileSystemUsage> BoardFiles::fileSystemUsage(const std::string &path)
{
    {
        const BoardLocker lock(mutex_);
        if (mounted_ && onRamDisk(absolutePath(path))) {
            const std::int64_t now = clock_.nowUsLocked();
            if (!ramUsage_ || now - ramUsageAtUs_ >= 60'000'000) {
                ramUsage_ = ramDiskUsageLocked();
                ramUsageAtUs_ = now;
            }
            FileSystemUsage usage = *ramUsage_;
            if (ramNoSpace_)
                usage.freeBlocks = 0;
            if (ramNoInodes_)
                usage.freeInodes = 0;
            return usage;
        }
    }
    struct statvfs st {};
    if (::statvfs(hostPath(path).c_str(), &st) != 0)
        return std::nullopt;
    FileSystemUsage usage;
    usage.blocks = st.f_blocks;
    usage.freeBlocks = st.f_bfree;
    usage.inodes = st.f_files;
    usage.freeInodes = st.f_ffree;
    return usage;
}

// The RAM disk as mkfs made it, with what the files under it take.
FileSystemUsage BoardFiles::ramDiskUsageLocked() const
{
    std::uint64_t usedBlocks = 600; // superblock, group descriptors, bitmaps, inode table
    std::uint64_t usedInodes = 11;  // the reserved ones, the root and lost+found
    std::error_code error;
    for (auto it = fs::recursive_directory_iterator(hostPath("/ramcache"), error);
         !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
        usedInodes++;
        if (it->is_regular_file(error))
            usedBlocks += (it->file_size(error) + 1023) / 1024;
    }
    FileSystemUsage usage;
    usage.blocks = ramBlocks_;
    usage.freeBlocks = ramBlocks_ > usedBlocks ? ramBlocks_ - usedBlocks : 0;
    usage.inodes = ramInodes_;
    usage.freeInodes = ramInodes_ > usedInodes ? ramInodes_ - usedInodes : 0;
    return usage;
}

} // namespace zarvent::sim
