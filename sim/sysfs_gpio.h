// GPIO lines under /sys/class/gpio with the kernel's semantics (export,
// direction, value, edge), a log of every level written, and a decoder of the
// DAC's three-wire words on lines 106 (select), 96 (clock) and 118 (data).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "board_clock.h"
#include "board_lock.h"
#include "virtual_descriptors.h"

namespace zarvent::sim {

// One write of a level to a value file, by the pin layer or by a shell echo.
struct LevelRecord {
    std::int64_t timeUs = 0;
    int line = 0;
    int level = 0;
    bool byShell = false;
};

// A DAC word decoded from lines 106 (select), 96 (clock) and 118 (data).
struct DacWord {
    std::int64_t timeUs = 0;
    std::uint32_t word = 0;
    int bits = 0;           // 24 for a complete frame
    bool malformed = false; // a frame with other than 24 clock pulses
};

class SysfsGpio {
  public:
    SysfsGpio(BoardMutex &mutex, BoardClock &clock, VirtualDescriptors &descriptors);

    // A line the system has exported already.
    void provideLine(int line, bool output, int level);
    // The next read of the line's value blocks for us of virtual time (a
    // driver that does not answer).
    void holdNextRead(int line, std::int64_t us);
    void setInput(int line, int level);
    // The next reads of the line return these levels, then its level again.
    void queueReads(int line, std::vector<int> levels);
    // The line reads 1 during the first highUs of every period (0: off).
    void setPulse(int line, std::int64_t highUs, std::int64_t periodUs = 1000000);
    int level(int line) const; // -1 when not exported
    bool exported(int line) const;
    std::string direction(int line) const; // "in", "out" or "" when not exported
    std::string edge(int line) const;
    std::vector<LevelRecord> levels() const;
    // Bytes of the last write to the line's value file through a descriptor.
    std::string lastWrite(int line) const;
    // The DAC words decoded so far, from the from-th on.
    std::vector<DacWord> dacWords(std::size_t from = 0) const;

    // ---- for the seam and the shell
    // The line of a path /sys/class/gpio/gpioN/value.
    static std::optional<int> valueFileLine(const std::string &path);
    // Opens the export file or an attribute: a descriptor, or -1 with errno;
    // nothing when the path is none of them.
    std::optional<int> openLocked(const std::string &path) REQUIRES(kBoardLock);
    // Virtual time the next read through fd is to block (0: none); taken.
    std::int64_t takeHeldReadUs(int fd);
    // Reads an attribute from its start; -1 with errno.
    long readLocked(const VirtualFd &v, std::span<char> into) REQUIRES(kBoardLock);
    // Writes to an attribute; the count written or -1 with errno.
    long writeLocked(const VirtualFd &v, std::span<const char> from) REQUIRES(kBoardLock);
    // A level written to a line's value file; 0, or the errno the kernel sets.
    int driveLocked(int line, bool high, bool byShell) REQUIRES(kBoardLock);
    // Forgets the levels and DAC words recorded so far.
    void dropHistoryLocked() REQUIRES(kBoardLock);

  private:
    static constexpr int kLines = 256;

    struct Line {
        bool exported = false;
        bool output = false;
        int level = 0;
        std::string edge;
        std::deque<int> queued;
        std::int64_t pulseHighUs = 0;
        std::int64_t pulsePeriodUs = 1000000;
        std::string lastWrite;
    };

    // The DAC's serial input as the chip sees it.
    struct DacDecoder {
        bool selected = false;
        int clock = 0;
        int data = 0;
        int bits = 0;
        std::uint32_t word = 0;
    };

    Line *lineLocked(long number) REQUIRES(kBoardLock);
    const Line *lineLocked(long number) const REQUIRES(kBoardLock);
    int readLevelLocked(Line &g) REQUIRES(kBoardLock);
    void observeDacLocked(int number, int level) REQUIRES(kBoardLock);

    BoardMutex &mutex_;
    BoardClock &clock_;
    VirtualDescriptors &descriptors_;
    std::array<Line, kLines> lines_ GUARDED_BY(kBoardLock);
    std::vector<LevelRecord> levels_ GUARDED_BY(kBoardLock);
    DacDecoder dac_ GUARDED_BY(kBoardLock);
    std::vector<DacWord> dacWords_ GUARDED_BY(kBoardLock);
    std::map<int, std::int64_t> heldReads_ GUARDED_BY(kBoardLock); // line: its next read blocks
};

} // namespace zarvent::sim
