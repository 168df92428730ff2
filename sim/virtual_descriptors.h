// The descriptors the board hands out for its virtual files: the sysfs GPIO
// attributes and the SPI device. Numbered far above the host's own, so that
// every other descriptor passes through to the host.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>

#include "board_lock.h"

namespace zarvent::sim {

enum class FdKind { Free, Export, Direction, Value, Edge, Spi };

struct VirtualFd {
    FdKind kind = FdKind::Free;
    int line = 0;
};

class VirtualDescriptors {
  public:
    explicit VirtualDescriptors(BoardMutex &mutex) : mutex_(mutex) {}

    // Descriptors open on the board's virtual files.
    int openCount() const
    {
        const BoardLocker lock(mutex_);
        return static_cast<int>(std::count_if(
            fds_.begin(), fds_.end(), [](const VirtualFd &v) { return v.kind != FdKind::Free; }));
    }

    // A new descriptor, or -1 with errno EMFILE when all are taken.
    int openLocked(FdKind kind, int line) REQUIRES(kBoardLock)
    {
        for (std::size_t i = 0; i < fds_.size(); i++) {
            if (fds_[i].kind == FdKind::Free) {
                fds_[i] = {kind, line};
                return kFdBase + static_cast<int>(i);
            }
        }
        errno = EMFILE;
        return -1;
    }

    // The virtual file behind fd; null for a host descriptor.
    VirtualFd *findLocked(int fd) REQUIRES(kBoardLock)
    {
        if (fd < kFdBase || fd >= kFdBase + kFds)
            return nullptr;
        VirtualFd &v = fds_[static_cast<std::size_t>(fd - kFdBase)];
        return v.kind == FdKind::Free ? nullptr : &v;
    }

    // Closes a virtual descriptor; false for a host descriptor.
    bool closeLocked(int fd) REQUIRES(kBoardLock)
    {
        VirtualFd *v = findLocked(fd);
        if (v == nullptr)
            return false;
        v->kind = FdKind::Free;
        return true;
    }

  private:
    static constexpr int kFdBase = 1000; // far above the host's own descriptors
    static constexpr int kFds = 64;

    BoardMutex &mutex_;
    std::array<VirtualFd, kFds> fds_ GUARDED_BY(kBoardLock);
};

} // namespace zarvent::sim
