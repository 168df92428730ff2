// A month on the simulated board: the whole daemon with statistics on, the
// receiver lost and found, antenna shorts, alarms, clock steps by ntpd, and
// two restarts of the daemon with the RAM disk kept (as after a crash: mkfs
// and mount refuse a mounted RAM disk). Prints one row a day and the maxima;
// exits 1 unless every figure is flat after the first day and the RAM disk
// stays at or below half its blocks and inodes.
//   soak [DAYS]
#include <malloc.h>
#include <sched.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "board_model.h"
#include "cycle/steering.h"
#include "daemon/daemon.h"
#include "scheduler.h"
#include "virtual_board.h"

namespace zarvent::sim {
namespace {

constexpr std::int64_t kStart = 1794787200; // 2026-11-16 00:00:00 UTC
constexpr std::int64_t kDay = 86400;

struct Day {
    std::size_t heapKiB = 0; // in use by the process: the daemon and the simulator
    int hostFds = 0;         // the process's descriptors beyond those at start
    int boardFds = 0;        // descriptors open on the board's sysfs and SPI device
    std::uint64_t blocksPeak = 0, inodesPeak = 0; // RAM disk, the day's highest
    std::uint64_t blocks = 0, inodes = 0;         // its size
    std::int64_t errorLog = 0;                    // bytes, both generations
    int charts = 0;
};

int openHostFds()
{
    int n = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        n++;
    return n;
}

// The board's events in second s of a day (d: the day's number from 0).
void events(VirtualBoard &board, BoardModel &model, std::int64_t d, std::int64_t s)
{
    switch (s) {
    case 6 * 3600: // the receiver and ntpd's reference lost for a quarter of an hour
        board.ntp().setRmcStatus('V');
        board.ntp().setPeer(Peer::None);
        break;
    case 6 * 3600 + 900:
        board.ntp().setRmcStatus('A');
        board.ntp().setPeer(Peer::System);
        break;
    case 12 * 3600: // an antenna short for five minutes
        board.gpio().setInput(87, 0);
        break;
    case 12 * 3600 + 300:
        board.gpio().setInput(87, 1);
        break;
    case 18 * 3600: // the alarm input and an FPGA event
        board.gpio().setInput(176, 0);
        model.command({"event", "1"});
        break;
    case 18 * 3600 + 60:
        board.gpio().setInput(176, 1);
        break;
    case 21 * 3600: // ntpd steps the clock, forward one day and back the next
        board.clock().stepClock(d % 2 == 0 ? 2'000'000 : -2'000'000);
        break;
    default:
        break;
    }
}

} // namespace
} // namespace zarvent::sim

int main(int argc, char **argv)
{
    using namespace zarvent::sim;
    const std::int64_t days = argc > 1 ? std::max(2L, std::strtol(argv[1], nullptr, 10)) : 30;
    if (const int cpu = ::sched_getcpu(); cpu >= 0) { // one daemon thread at a time
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<unsigned>(cpu), &set);
        (void)::sched_setaffinity(0, sizeof set, &set);
    }
    const int fdsAtStart = openHostFds();

    VirtualBoard board(kStart);
    board.boardTree();
    BoardConfig config;
    applyOscillatorPreset("ocxo", config);
    BoardModel model(board, config);
    for (const char *command : {"rmc A", "peer system", "load 40 38"}) {
        std::vector<std::string> words;
        for (std::string w; const char c : std::string(command) + " ")
            c == ' ' ? (words.push_back(w), w.clear()) : w.push_back(c);
        model.command(words);
    }
    board.files().writeFile("/usr/bin/Zarvent/enable.cfg", "1\n");
    board.clock().setCommandCostUs(4000);

    std::unique_ptr<Scheduler> scheduler;
    std::unique_ptr<zarvent::Daemon> daemon;
    int starts = 0;
    const auto start = [&] {
        if (daemon) { // the daemon ends as if killed; its threads unwind
            scheduler->finish();
            daemon.reset();
            scheduler.reset();
        }
        scheduler = std::make_unique<Scheduler>(board, 0);
        daemon = std::make_unique<zarvent::Daemon>(board);
        daemon->prepareRamDisk();
        daemon->startThreads();
        starts++;
    };
    start();

    std::printf("| day | heap KiB | host fds | board fds | RAM disk blocks (peak) | inodes (peak) "
                "| error log bytes | chart files |\n|---|---|---|---|---|---|---|---|\n");
    std::vector<Day> rows;
    Day today;
    for (std::int64_t t = 1; t <= days * kDay; t++) {
        scheduler->wait((kStart + t) * 1'000'000 - board.clock().nowUs());
        if (board.process().aborted()) {
            std::printf("the daemon aborted at board second %lld\n", static_cast<long long>(t));
            return 1;
        }
        const std::int64_t d = t / kDay, s = t % kDay;
        events(board, model, d, s);
        if (t % 3600 == 0)
            model.dropHistory(); // the simulator's own logs, not the daemon's
        if (t % 60 == 0) {
            if (const auto usage = board.fileSystemUsage("/ramcache")) {
                today.blocks = usage->blocks;
                today.inodes = usage->inodes;
                today.blocksPeak = std::max(today.blocksPeak, usage->blocks - usage->freeBlocks);
                today.inodesPeak = std::max(today.inodesPeak, usage->inodes - usage->freeInodes);
            }
        }
        if (s != 0)
            continue;
        const struct mallinfo2 heap = ::mallinfo2();
        today.heapKiB = heap.uordblks / 1024;
        today.hostFds = openHostFds() - fdsAtStart;
        today.boardFds = board.descriptors().openCount();
        today.errorLog = board.fileSize("/ramcache/zarvent/errorlog.log").value_or(0) +
                         board.fileSize("/ramcache/zarvent/errorlog.log.1").value_or(0);
        today.charts = 0;
        for (const std::string &name : board.listDirectory("/ramcache/zarvent"))
            today.charts += name.starts_with("ptp_data_") ? 1 : 0;
        rows.push_back(today);
        const Day &r = today;
        std::printf(
            "| %lld%s | %zu | %d | %d | %llu/%llu (%.0f %%) | %llu/%llu (%.0f %%) | %lld | %d |\n",
            static_cast<long long>(d),
            d == days / 3 || d == 2 * days / 3 ? " (then a restart)" : "", r.heapKiB, r.hostFds,
            r.boardFds, static_cast<unsigned long long>(r.blocksPeak),
            static_cast<unsigned long long>(r.blocks),
            100.0 * static_cast<double>(r.blocksPeak) / static_cast<double>(r.blocks),
            static_cast<unsigned long long>(r.inodesPeak),
            static_cast<unsigned long long>(r.inodes),
            100.0 * static_cast<double>(r.inodesPeak) / static_cast<double>(r.inodes),
            static_cast<long long>(r.errorLog), r.charts);
        std::fflush(stdout);
        today = Day{};
        if (d == days / 3 || d == 2 * days / 3)
            start();
    }
    scheduler->finish();

    // Flat after the first day: nothing above the second day's figure but by
    // a margin for the allocator's and the clock's jitter.
    Day max;
    const Day &second = rows.at(1);
    bool ok = true;
    for (std::size_t i = 1; i < rows.size(); i++) {
        const Day &r = rows[i];
        max.heapKiB = std::max(max.heapKiB, r.heapKiB);
        max.hostFds = std::max(max.hostFds, r.hostFds);
        max.boardFds = std::max(max.boardFds, r.boardFds);
        max.blocksPeak = std::max(max.blocksPeak, r.blocksPeak);
        max.inodesPeak = std::max(max.inodesPeak, r.inodesPeak);
        max.errorLog = std::max(max.errorLog, r.errorLog);
        max.charts = std::max(max.charts, r.charts);
        ok = ok && r.blocksPeak * 2 <= r.blocks && r.inodesPeak * 2 <= r.inodes;
    }
    ok = ok && max.heapKiB <= second.heapKiB + second.heapKiB / 10 + 256 &&
         max.hostFds <= second.hostFds && max.boardFds <= second.boardFds &&
         max.charts <= zarvent::chart::kFilesKept + 3 && max.errorLog <= 2 * 65536;
    std::printf("maxima after the first day: heap %zu KiB, host fds %d, board fds %d, RAM disk "
                "%llu blocks, %llu inodes, error log %lld bytes, %d chart files; %d daemon "
                "starts\n%s\n",
                max.heapKiB, max.hostFds, max.boardFds,
                static_cast<unsigned long long>(max.blocksPeak),
                static_cast<unsigned long long>(max.inodesPeak),
                static_cast<long long>(max.errorLog), max.charts, starts,
                ok ? "flat: every figure held after the first day, the RAM disk at most half full"
                   : "NOT FLAT");
    return ok ? 0 : 1;
}
