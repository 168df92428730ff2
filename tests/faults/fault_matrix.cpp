// The fault matrix: the whole daemon on the simulated board, one run per
// fault. Each run steers and counts statistics for two minutes, then the
// fault holds for three, then it clears and the run goes on for three more.
// Every run must show: the daemon still running (but for the SPI device that
// is gone, where it aborts by design, and a stop), no register written with a value that
// did not come from the register, no file written outside the RAM disk's
// output directory, and by the end a board that works again by itself:
// cycles, hand-overs accepted, the oscillator steered, supervision passes and
// a fresh status page. Prints one table row per fault; exits 1 if any failed.
//   fault_matrix [--flap-seconds S] [--only SUBSTRING]
#include <sched.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "board_model.h"
#include "cycle/steering.h"
#include "scenario.h"
#include "text.h"

namespace zarvent::sim {
namespace {

constexpr std::int64_t kFaultAt = 120;
constexpr std::int64_t kClearAt = 300;
constexpr std::int64_t kEnd = 480;
constexpr std::int64_t kHealthyWindow = 60; // the last minute of the run
// The TAI-UTC offset is read from the leap-second list once, at start, and
// kept for the life of the process: a list that could not be read leaves the
// seconds count handed to the FPGA wrong until the daemon is restarted.
constexpr const char *kLeapKept = "at the next restart (the leap list is read once at start)";

struct Seen;

struct Fault {
    using Set = std::function<void(VirtualBoard &, BoardModel &, bool)>;
    Fault(std::string n, Set s) : name(std::move(n)), set(std::move(s)) {}

    std::string name;
    Set set; // turns the fault on (true) or off (false)
    std::int64_t at = kFaultAt;
    std::int64_t clear = kClearAt;
    std::int64_t end = kEnd;
    bool aborts = false; // the daemon stops by design
    bool stops = false;  // the fault is a stop request: the run ends with it
    // Set when the daemon keeps the fault's effect until it is restarted, by
    // design: the reason. The hand-overs are then expected to stay rejected.
    std::string keptUntilRestart;
    // Called every second while the fault holds (t: seconds into the run).
    std::function<void(VirtualBoard &, BoardModel &, std::int64_t t)> each;
    // A check of what the board and the web interface saw during the fault;
    // the reason when it fails.
    std::function<std::string(const Seen &)> expect;
    // A check of the board at second checkAt (0: the run's last second); the
    // reason when it fails.
    std::function<std::string(VirtualBoard &)> finally;
    std::int64_t checkAt = 0; // -1: once the run has ended
    std::string start = "2026-11-16T13:27:00";
};

// What the run showed, counted per phase: before, during and after the fault.
struct Phase {
    int cycles = 0;  // phase reads of register 14
    int steered = 0; // seconds with the synchronisation flag set
    int handoversOk = 0;
    int handoversBad = 0;
    int handoversOpened = 0;
    int dacWords = 0;
    int passes = 0;        // supervision passes (reference queries)
    int pageChanges = 0;   // seconds in which the status page changed
    int referenceLost = 0; // seconds the page named no reference
    int alarm = 0;         // seconds the page showed the alarm
};

struct Seen {
    Phase during;
    Phase last; // the run's last minute
    bool aborted = false;
    bool stopped = false;
    int unreadWrites = 0;
    std::vector<std::string> strayFiles;
    std::string page;    // the status page at the end
    std::string errors;  // the daemon's standard error
    std::string finally; // what the fault's final check found
};

const char *const kBase = "seed 3\n"
                          "osc gain 0.1 natural 33000 noise 3 offset 400\n"
                          "load 40 38\n"
                          "rmc A\n"
                          "peer system\n"
                          "file /usr/bin/Zarvent/enable.cfg 1\n";

Seen runFault(const Fault &fault, std::string &error)
{
    Seen seen;
    std::string page;
    std::size_t commandsSeen = 0;
    BoardStats previous;
    bool faultOn = false;
    RunOptions options;
    options.scenarioText = std::string("start ") + fault.start + "\nduration " +
                           std::to_string(fault.end) + "\n" + kBase;
    char dir[] = "/tmp/zarvent-fault-XXXXXX";
    if (::mkdtemp(dir) == nullptr) {
        error = "mkdtemp failed";
        return seen;
    }
    options.outDir = dir;
    const std::int64_t first = [&] {
        std::tm t{};
        std::sscanf(fault.start.c_str(), "%d-%d-%dT%d:%d:%d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                    &t.tm_hour, &t.tm_min, &t.tm_sec);
        t.tm_year -= 1900;
        t.tm_mon -= 1;
        return static_cast<std::int64_t>(::timegm(&t));
    }();
    if (fault.at == 0)
        options.beforeStart = [&](VirtualBoard &board, BoardModel &model) {
            faultOn = true;
            fault.set(board, model, true);
        };
    options.eachSecond = [&](const SecondView &view) {
        const std::int64_t t = view.unixSecond - first;
        if ((t == fault.at && t > 0) || t == fault.clear) {
            faultOn = t == fault.at;
            fault.set(view.board, view.model, faultOn);
        }
        Phase *phase = t > fault.at && t <= fault.clear ? &seen.during
                       : t > fault.end - kHealthyWindow ? &seen.last
                                                        : nullptr;
        const BoardStats stats = view.model.stats();
        const std::vector<CommandRecord> commands = view.board.tools().commands(commandsSeen);
        const std::string now =
            view.board.files().readFile("/ramcache/zarvent/ntp_data.txt").value_or("");
        if (phase != nullptr) {
            for (const CommandRecord &c : commands) {
                phase->cycles += c.line == "./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0";
                phase->passes += c.line == "ntpq -p | grep '*G'";
            }
            phase->steered += view.daemon.steeringEnabled() ? 1 : 0;
            phase->handoversOk += stats.handoversAccepted - previous.handoversAccepted;
            phase->handoversBad += stats.handoversRejected - previous.handoversRejected;
            phase->handoversOpened += stats.handoversOpen - previous.handoversOpen;
            phase->referenceLost += now.find("</b>    NULL\n") != std::string::npos;
            phase->alarm += now.find("<b>Alarm at:</b>") != std::string::npos;
            phase->dacWords += stats.dacWords - previous.dacWords;
            phase->pageChanges += now != page;
        }
        commandsSeen += commands.size();
        previous = stats;
        page = now;
        if (faultOn && fault.each)
            fault.each(view.board, view.model, t);
        if (t == (fault.checkAt > 0 ? fault.checkAt : fault.end - 1) && fault.checkAt >= 0 &&
            fault.finally)
            seen.finally = fault.finally(view.board);
        seen.errors = view.board.process().errorOutput();
        // Keep the memory of the long runs flat.
        if (commandsSeen > 200000) {
            view.model.dropHistory();
            commandsSeen = 0;
        }
        seen.unreadWrites = view.board.fpga().unreadRegisterWrites();
        seen.strayFiles.clear();
        for (const std::string &path : view.board.files().writtenPaths())
            if (!path.starts_with("/ramcache/zarvent/") && !path.starts_with("/ftpdir/") &&
                !path.starts_with("/sys/class/gpio/") && path != "/dev/spidev1.0" &&
                path != "/usr/bin/Zarvent/temp" && path != "/usr/bin/Zarvent/.temp.new")
                seen.strayFiles.push_back(path);
    };
    if (fault.checkAt < 0 && fault.finally)
        options.afterRun = [&](VirtualBoard &board) { seen.finally = fault.finally(board); };
    const RunResult result = runScenario(options);
    seen.aborted = result.daemonAborted;
    seen.stopped = result.daemonStopped;
    seen.page = page;
    if (!result.ok && !result.daemonAborted)
        error = result.error;
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
    return seen;
}

// A board that works: in the last minute every second had its cycle, the
// FPGA took the time, the oscillator was steered, supervision ran and the
// page was rewritten.
std::string recovered(const Seen &s, bool handoversRejected)
{
    const Phase &p = s.last;
    if (p.cycles < kHealthyWindow - 2)
        return format("%d cycles in the last minute", p.cycles);
    if (handoversRejected ? p.handoversOk > 0
                          : p.handoversOk < kHealthyWindow - 2 || p.handoversBad > 0)
        return format("%d/%d hand-overs accepted/rejected in the last minute", p.handoversOk,
                      p.handoversBad);
    if (p.steered < kHealthyWindow || p.dacWords < kHealthyWindow - 2)
        return format("steered %d s, %d DAC words in the last minute", p.steered, p.dacWords);
    if (p.passes < 10)
        return format("%d supervision passes in the last minute", p.passes);
    if (p.pageChanges < kHealthyWindow - 2)
        return format("status page changed in %d of the last 60 s", p.pageChanges);
    return "";
}

void tool(VirtualBoard &board, const std::vector<std::string> &programs, ToolFault fault, bool on)
{
    for (const std::string &program : programs)
        board.tools().setToolFault(program, on ? fault : ToolFault::None);
}

std::vector<Fault> faults(std::int64_t flapSeconds)
{
    std::vector<Fault> list;
    const std::vector<std::pair<std::string, std::vector<std::string>>> programs = {
        {"spiWrite", {"./spiWrite", "/usr/bin/Zarvent/spiWrite"}},
        {"ntpq", {"ntpq"}},
        {"ntptime", {"ntptime"}},
        {"echo", {"echo"}},
        {"rm", {"rm"}},
    };
    const std::vector<std::pair<std::string, ToolFault>> kinds = {
        {"no output", ToolFault::Empty},          {"short output", ToolFault::Short},
        {"garbage", ToolFault::Garbage},          {"error message", ToolFault::Error},
        {"overlong line", ToolFault::Overlong},   {"binary junk", ToolFault::Binary},
        {"exit status 1", ToolFault::ExitStatus}, {"slow (3 s a call)", ToolFault::Slow},
        {"never exits", ToolFault::Hang},
    };
    for (const auto &program : programs) {
        const std::string &name = program.first;
        const std::vector<std::string> &names = program.second;
        list.push_back({name + ": missing", [names](VirtualBoard &b, BoardModel &, bool on) {
                            for (const std::string &n : names)
                                b.tools().setToolAbsent(n, on);
                        }});
        for (const auto &kind : kinds) {
            const ToolFault fault = kind.second;
            list.push_back(
                {name + ": " + kind.first, [names, fault](VirtualBoard &b, BoardModel &, bool on) {
                     tool(b, names, fault, on);
                 }});
        }
    }
    // Hanging commands in particular places: the register-2 read inside its
    // read-modify-write (under its lock), ntpq in supervision, the loader.
    // Standard error names each hanging program once, and once when it
    // finishes in time again.
    const auto namedOnce = [](std::string program) {
        return [program](const Seen &s) -> std::string {
            const auto count = [&](const std::string &text) {
                std::size_t n = 0;
                for (std::size_t at = s.errors.find(text); at != std::string::npos;
                     at = s.errors.find(text, at + 1))
                    ++n;
                return n;
            };
            if (count("zarvent: " + program + " did not finish within") != 1 ||
                count("zarvent: " + program + " finishes in time again") != 1)
                return "standard error: " + s.errors;
            return {};
        };
    };
    struct Place {
        std::string name;
        std::vector<std::string> lines;
        std::string program;
    };
    for (const Place &place :
         {Place{"spiWrite reading register 2 (read-modify-write)",
                {"./spiWrite -m 0 -l 3 -d 1 2 0"},
                "spiWrite"},
          Place{
              "ntpq -p in supervision", {"ntpq -p | grep '*G'", "ntpq -p | grep 'oG'"}, "ntpq"}}) {
        const std::vector<std::string> lines = place.lines;
        Fault f{place.name + ": never exits", [lines](VirtualBoard &b, BoardModel &, bool on) {
                    tool(b, lines, ToolFault::Hang, on);
                }};
        f.expect = namedOnce(place.program);
        list.push_back(f);
    }
    for (const std::string program : {"spiWrite", "ntpq", "ntptime"})
        for (Fault &f : list)
            if (f.name == program + ": never exits")
                f.expect = namedOnce(program);
    // The first load never ends: killed at its deadline, the FPGA is loaded
    // again at once.
    {
        Fault loader{"wrFPGA: the first load never exits",
                     [](VirtualBoard &b, BoardModel &, bool on) {
                         b.tools().setToolFault("./wrFPGA", on ? ToolFault::Hang : ToolFault::None);
                     }};
        loader.at = 0;
        loader.clear = 100;
        loader.finally = [](VirtualBoard &b) {
            const std::size_t loads = b.tools().countCommand("./wrFPGA --file Version_1.rbf");
            return loads == 2 && b.fpga().loaderRuns() == 1 ? std::string()
                                                            : format("%zu loads", loads);
        };
        list.push_back(loader);
    }
    // Peer names that take 10 s to resolve (a silent name server): slow is
    // not dead; the board keeps its reference, its bit and no alarm.
    {
        Fault slow{
            "ntpq -p: 10 s a call (a silent name server)",
            [](VirtualBoard &b, BoardModel &, bool on) {
                tool(b, {"ntpq -p | grep '*G'", "ntpq -p | grep 'oG'"}, ToolFault::VerySlow, on);
            }};
        slow.expect = [](const Seen &s) {
            return s.during.referenceLost == 0 && s.during.alarm == 0
                       ? std::string()
                       : format("no reference on the page %d s, alarm %d s", s.during.referenceLost,
                                s.during.alarm);
        };
        slow.checkAt = slow.clear - 1;
        slow.finally = [](VirtualBoard &b) {
            return (b.fpga().registerValue(2) & 1) != 0 ? std::string()
                                                        : "the reference-valid bit is cleared";
        };
        list.push_back(slow);
    }
    // An ntpd that never answers clockvar is no valid receiver data: the
    // first such cycle stops the steering and clears the FPGA's sync bit.
    {
        Fault wedged{"ntpq -c clockvar: never exits", [](VirtualBoard &b, BoardModel &, bool on) {
                         tool(b, {"ntpq -c clockvar"}, ToolFault::Hang, on);
                     }};
        wedged.expect = [](const Seen &s) {
            return s.during.steered <= 10
                       ? std::string()
                       : format("steered %d s with ntpd silent", s.during.steered);
        };
        wedged.checkAt = wedged.at + 40;
        wedged.finally = [](VirtualBoard &b) {
            return (b.fpga().registerValue(1) & 1) == 0 ? std::string()
                                                        : "the sync bit is still set after 40 s";
        };
        list.push_back(wedged);
    }

    // Tools run only at start: the fault holds from the start.
    for (const std::string program : {"adjtimex", "./wrFPGA", "mkfs", "mount", "tail"})
        for (const ToolFault fault :
             {ToolFault::Garbage, ToolFault::Binary, ToolFault::ExitStatus}) {
            Fault f{program + ": " +
                        (fault == ToolFault::Garbage  ? "garbage"
                         : fault == ToolFault::Binary ? "binary junk"
                                                      : "exit status 1") +
                        " at start",
                    [program, fault](VirtualBoard &b, BoardModel &, bool on) {
                        b.tools().setToolFault(program, on ? fault : ToolFault::None);
                    }};
            f.at = 0;
            if (program == "tail" && fault != ToolFault::ExitStatus)
                f.keptUntilRestart = kLeapKept;
            list.push_back(f);
        }

    // Files the daemon reads.
    const std::vector<std::pair<std::string, std::string>> readFiles = {
        {"dac_voltage", "/usr/bin/Zarvent/dac_voltage"},
        {"enable.cfg", "/usr/bin/Zarvent/enable.cfg"},
        {"nmea_emul_flag.txt", "/usr/bin/Zarvent/nmea_emul_flag.txt"},
    };
    for (const auto &[name, path] : readFiles) {
        const std::string p = path;
        // The file's text while the fault holds; its own text again after.
        const auto replaced = [p](std::function<void(VirtualBoard &)> fault) {
            auto kept = std::make_shared<std::string>();
            return [p, fault, kept](VirtualBoard &b, BoardModel &, bool on) {
                if (on) {
                    *kept = b.files().readFile(p).value_or("");
                    fault(b);
                } else {
                    b.files().writeFile(p, *kept);
                }
            };
        };
        list.push_back({name + ": missing", replaced([p](VirtualBoard &b) {
                            std::filesystem::remove(b.files().hostPath(p));
                        })});
        list.push_back(
            {name + ": empty", replaced([p](VirtualBoard &b) { b.files().writeFile(p, ""); })});
        list.push_back({name + ": unreadable", [p](VirtualBoard &b, BoardModel &, bool on) {
                            b.files().failOpen(p, on ? EACCES : 0);
                        }});
        list.push_back({name + ": huge (4 MiB of junk)", replaced([p](VirtualBoard &b) {
                            std::string junk(4 << 20, '7');
                            for (std::size_t i = 0; i < junk.size(); i += 61)
                                junk[i] = i % 3 == 0 ? '\0' : '\n';
                            b.files().writeFile(p, junk);
                        })});
    }
    {
        Fault leap{"leap-seconds.list: huge junk at start",
                   [](VirtualBoard &b, BoardModel &, bool) {
                       // Read once at start; the junk stays.
                       b.files().writeFile("/leap-seconds.list", std::string(1 << 20, '\x80'));
                   }};
        leap.at = 0;
        leap.keptUntilRestart = kLeapKept;
        list.push_back(leap);
        Fault missing{"leap-seconds.list: unreadable at start",
                      [](VirtualBoard &b, BoardModel &, bool on) {
                          b.files().failOpen("/leap-seconds.list", on ? EACCES : 0);
                      }};
        missing.at = 0;
        missing.keptUntilRestart = kLeapKept;
        list.push_back(missing);
    }

    // The RAM disk.
    list.push_back({"RAM disk full (no space)", [](VirtualBoard &b, BoardModel &, bool on) {
                        b.files().setRamDiskFull(on, false);
                    }});
    list.push_back({"RAM disk full (no inodes)", [](VirtualBoard &b, BoardModel &, bool on) {
                        b.files().setRamDiskFull(false, on);
                    }});
    list.push_back({"RAM disk read-only", [](VirtualBoard &b, BoardModel &, bool on) {
                        b.files().setReadOnly("/ramcache", on);
                    }});

    // Symbolic links planted where the daemon makes its files, each to a file
    // it must never write: each is replaced, never written through.
    for (const std::string path :
         {"/ramcache/zarvent/ntp_data.txt", "/ramcache/zarvent/lock",
          "/ramcache/zarvent/errorlog.log", "/ramcache/zarvent/ptp_data_2026~11~16_13-31",
          "/ramcache/zarvent/ntp.drift", "/ftpdir/stat.txt", "/ftpdir/lock"}) {
        Fault link{"symbolic link planted at " + path,
                   [path](VirtualBoard &b, BoardModel &, bool on) {
                       if (!on)
                           return;
                       b.files().writeFile("/etc/shadow", "root:secret\n");
                       std::filesystem::remove(b.files().hostPath(path));
                       std::filesystem::create_symlink(b.files().hostPath("/etc/shadow"),
                                                       b.files().hostPath(path));
                       b.ntp().setPeer(Peer::None); // a change of reference, for an error-log line
                   }};
        link.each = [](VirtualBoard &b, BoardModel &, std::int64_t t) {
            if (t == kFaultAt + 10)
                b.ntp().setPeer(Peer::System);
        };
        if (path.ends_with("ntp.drift"))
            link.at = 0; // made once, at start
        link.finally = [path](VirtualBoard &b) -> std::string {
            if (b.files().readFile("/etc/shadow") != "root:secret\n")
                return "written through the link at " + path;
            if (std::filesystem::is_symlink(b.files().hostPath(path)))
                return "the link at " + path + " is still there";
            return {};
        };
        list.push_back(link);
    }

    // The clock stepped by ntpd, across midnight and the month's end.
    {
        Fault forward{"clock stepped +1 h over midnight at month end, then back",
                      [](VirtualBoard &b, BoardModel &, bool on) {
                          b.clock().stepClock(on ? 3600000000 : -3600000000);
                      }};
        forward.start = "2026-11-30T23:55:00";
        forward.expect = [](const Seen &s) {
            return s.during.handoversOk == 0 ? std::string()
                                             : "hand-overs accepted with the clock an hour off";
        };
        list.push_back(forward);
        Fault back{"clock stepped -1 h back over midnight, then forward",
                   [](VirtualBoard &b, BoardModel &, bool on) {
                       b.clock().stepClock(on ? -3600000000 : 3600000000);
                   }};
        back.start = "2026-12-01T00:58:00";
        list.push_back(back);
        // A day back: the chart files of the day ahead must not keep
        // retention from removing anything older.
        Fault day{"clock stepped a day back, then forward",
                  [](VirtualBoard &b, BoardModel &, bool on) {
                      b.clock().stepClock(on ? -86400000000 : 86400000000);
                  }};
        day.checkAt = day.clear - 1;
        day.expect = [](const Seen &s) {
            return s.during.handoversOk == 0 ? std::string()
                                             : "hand-overs accepted with the clock a day off";
        };
        day.finally = [](VirtualBoard &b) -> std::string {
            const std::string now = chartFileName(*b.localTime(b.realtimeNs() / 1000000000));
            for (const auto &entry :
                 std::filesystem::directory_iterator(b.files().hostPath("/ramcache/zarvent"))) {
                const std::string name = entry.path().filename().string();
                if (isChartFileName(name) && "/ramcache/zarvent/" + name > now)
                    return "chart file " + name + " of a minute ahead is kept";
            }
            return b.files().exists(now) ? std::string() : "no chart file for the current minute";
        };
        list.push_back(day);
    }

    // The FPGA and its pulse.
    {
        Fault fpga{"FPGA never answering AA AA A5, then configured",
                   [](VirtualBoard &b, BoardModel &, bool on) {
                       b.fpga().setLoaderBroken(on);
                       b.fpga().setConfigured(!on);
                   }};
        fpga.at = 0;
        fpga.expect = [](const Seen &s) {
            return s.during.handoversOk == 0 ? std::string()
                                             : "the FPGA took the time without its bitstream";
        };
        list.push_back(fpga);
    }
    const auto pulse = [](std::int64_t highUs, std::int64_t periodUs, int level) {
        return [=](VirtualBoard &b, BoardModel &, bool on) {
            b.gpio().setPulse(19, on ? highUs : 100000, on ? periodUs : 1000000);
            b.gpio().setInput(19, on ? level : 0);
        };
    };
    // Without a pulse the board stops claiming steering within 3 s and says
    // so once; once pulses return it says so once and qualifies afresh.
    const auto withdrawn = [](const Seen &s) -> std::string {
        if (s.during.steered > 4)
            return format("steered %d s without a pulse", s.during.steered);
        if (s.errors.find("zarvent: no pulse from the FPGA for 3 s") == std::string::npos ||
            s.errors.find("zarvent: the FPGA's pulse is back") == std::string::npos)
            return "standard error: " + s.errors;
        return {};
    };
    Fault low{"pulse line stuck low", pulse(0, 1000000, 0)};
    low.expect = [withdrawn](const Seen &s) {
        return s.during.cycles == 0 ? withdrawn(s) : "cycles ran without a pulse";
    };
    list.push_back(low);
    Fault high{"pulse line stuck high", pulse(0, 1000000, 1)};
    high.expect = withdrawn;
    list.push_back(high);
    list.push_back({"pulse at 2 Hz", pulse(100000, 500000, 0)});
    {
        Fault gone{"pulse absent for a minute, then back", pulse(0, 1000000, 0)};
        gone.clear = gone.at + 60;
        gone.expect = withdrawn;
        list.push_back(gone);
    }

    // The system clock 0.4 s off the pulse (a clock stepped by hand, an ntpd
    // that only slews): no hand-over is opened, the steering goes on.
    {
        Fault off{"clock 0.4 s off the pulse", [](VirtualBoard &b, BoardModel &, bool on) {
                      b.clock().stepClock(on ? 400000 : -400000);
                  }};
        off.expect = [](const Seen &s) -> std::string {
            if (s.during.handoversOpened != 0)
                return format("%d hand-overs opened", s.during.handoversOpened);
            if (s.during.steered < 170)
                return format("steered only %d s", s.during.steered);
            if (s.errors.find("from the top of a second: no seconds count") == std::string::npos)
                return "standard error: " + s.errors;
            return {};
        };
        list.push_back(off);
    }

    // SIGTERM while steered, a relay pulse's bits aside: the FPGA's sync and
    // reference-valid bits read 0 once the daemon has ended, the other bits
    // of register 2 as they were, and no metrics claim anything.
    {
        Fault stop{"stop while steered", [](VirtualBoard &b, BoardModel &, bool on) {
                       if (!on)
                           return;
                       b.fpga().setRegister(2, 0x19);
                       b.process().requestStop();
                   }};
        stop.stops = true;
        stop.checkAt = -1;
        stop.finally = [](VirtualBoard &b) -> std::string {
            if ((b.fpga().registerValue(1) & 1) != 0 || b.fpga().registerValue(2) != 0x18)
                return format("registers 1 and 2 read %llu and %llu after the stop",
                              static_cast<unsigned long long>(b.fpga().registerValue(1)),
                              static_cast<unsigned long long>(b.fpga().registerValue(2)));
            if (b.files().exists("/ramcache/zarvent/metrics/zarvent.prom"))
                return "the metrics file stays";
            return {};
        };
        list.push_back(stop);
    }

    // The reference flapping at every supervision pass.
    {
        Fault flap{"reference flapping every pass for " +
                       format("%g", static_cast<double>(flapSeconds) / 3600.0) + " h",
                   [](VirtualBoard &b, BoardModel &, bool on) {
                       if (!on) {
                           b.ntp().setRmcStatus('A');
                           b.ntp().setPeer(Peer::System);
                       }
                   }};
        // Lost and found again every supervision pass (3 s): the receiver's
        // data and ntpd's reference together.
        flap.each = [](VirtualBoard &b, BoardModel &, std::int64_t t) {
            const bool lost = (t / 3) % 2 == 0;
            b.ntp().setRmcStatus(lost ? 'V' : 'A');
            b.ntp().setPeer(lost ? Peer::None : Peer::System);
        };
        flap.clear = flap.at + flapSeconds;
        flap.end = flap.clear + 180;
        list.push_back(flap);
    }

    // The SPI capture device gone while statistics are on: the daemon stops.
    Fault spi{"SPI capture device gone",
              [](VirtualBoard &b, BoardModel &, bool on) { b.spi().setPresent(!on); }};
    spi.aborts = true;
    list.push_back(spi);
    return list;
}

} // namespace
} // namespace zarvent::sim

int main(int argc, char **argv)
{
    using namespace zarvent::sim;
    // One daemon thread runs at a time in virtual time: on one CPU each
    // hand-over is a direct switch.
    if (const int cpu = ::sched_getcpu(); cpu >= 0) {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<unsigned>(cpu), &set);
        (void)::sched_setaffinity(0, sizeof set, &set);
    }
    std::int64_t flapSeconds = 86400;
    std::string only;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--flap-seconds") == 0)
            flapSeconds = std::strtoll(argv[i + 1], nullptr, 10);
        else if (std::strcmp(argv[i], "--only") == 0)
            only = argv[i + 1];
    }
    int failed = 0;
    std::printf("| fault | during the fault | recovered | unread register writes | stray files |\n"
                "|---|---|---|---|---|\n");
    for (const Fault &fault : faults(flapSeconds)) {
        if (!only.empty() && fault.name.find(only) == std::string::npos)
            continue;
        std::string error;
        const Seen s = runFault(fault, error);
        std::string problem = error;
        if (problem.empty() && s.aborted != fault.aborts)
            problem = s.aborted ? "the daemon aborted" : "the daemon did not stop";
        std::string recovery = fault.aborts                      ? "stopped (by design)"
                               : fault.stops                     ? "stopped (asked to)"
                               : !fault.keptUntilRestart.empty() ? fault.keptUntilRestart
                                                                 : "yes";
        if (problem.empty() && fault.stops != s.stopped)
            problem = s.stopped ? "the daemon stopped" : "the daemon did not stop";
        if (!fault.aborts && !fault.stops && !s.aborted) {
            if (const std::string why = recovered(s, !fault.keptUntilRestart.empty());
                !why.empty()) {
                recovery = "no: " + why;
                problem = why;
            }
        }
        if (problem.empty() && s.unreadWrites != 0)
            problem = "register written with a value it did not print";
        if (problem.empty() && !s.strayFiles.empty())
            problem = "wrote " + s.strayFiles.front();
        if (problem.empty() && fault.expect)
            problem = fault.expect(s);
        if (problem.empty())
            problem = s.finally;
        const Phase &d = s.during;
        std::printf("| %s | cycles %d, steered %d s, hand-overs %d ok %d rejected, page %d "
                    "updates | %s | %d | %zu |%s\n",
                    fault.name.c_str(), d.cycles, d.steered, d.handoversOk, d.handoversBad,
                    d.pageChanges, recovery.c_str(), s.unreadWrites, s.strayFiles.size(),
                    problem.empty() ? "" : (" FAILED: " + problem).c_str());
        std::fflush(stdout);
        failed += problem.empty() ? 0 : 1;
    }
    std::printf("%d fault(s) failed\n", failed);
    return failed == 0 ? 0 : 1;
}
