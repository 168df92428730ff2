// The shell utilities the daemon runs, acting on the board's tree: echo
// (into a file or a GPIO line's value), rm, touch, mkdir, mv, cp, tail, df,
// mount and ifconfig.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "shell_tools.h"

namespace zarvent::sim {

namespace fs = std::filesystem;

void ShellTools::addUtilities()
{
    const std::pair<const char *, void (ShellTools::*)(const ProgramRun &)> utilities[] = {
        {"echo", &ShellTools::echoLocked},   {"rm", &ShellTools::rmLocked},
        {"touch", &ShellTools::touchLocked}, {"mkdir", &ShellTools::mkdirLocked},
        {"mv", &ShellTools::mvLocked},       {"cp", &ShellTools::cpLocked},
        {"tail", &ShellTools::tailLocked},   {"df", &ShellTools::dfLocked},
        {"mount", &ShellTools::mountLocked}, {"ifconfig", &ShellTools::ifconfigLocked},
    };
    for (const auto &utility : utilities)
        addProgram(utility.first, [this, run = utility.second](const ProgramRun &r)
                                      REQUIRES(kBoardLock) { (this->*run)(r); });
}

// "echo L > /sys/class/gpio/gpioN/value", or echo into a plain file.
void ShellTools::echoLocked(const ProgramRun &run)
{
    const std::string &commandLine = run.line;
    const std::size_t gt = commandLine.find('>');
    if (gt == std::string::npos)
        return;
    std::string value = gt > 5 ? commandLine.substr(5, std::min<std::size_t>(gt - 5, 63)) : "";
    while (!value.empty() && value.back() == ' ')
        value.pop_back();
    std::size_t start = gt + 1;
    while (start < commandLine.size() && commandLine[start] == ' ')
        start++;
    const std::string target = commandLine.substr(start);
    if (const auto line = SysfsGpio::valueFileLine(target)) {
        // The shell reports a refused write on its standard error only.
        gpio_.driveLocked(*line, static_cast<int>(std::strtol(value.c_str(), nullptr, 10)) != 0,
                          true);
        return;
    }
    if (!files_.readOnlyLocked(target))
        writeHostFile(files_.hostPath(target), value + "\n");
}

void ShellTools::rmLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    for (std::size_t i = 1; i < w.size(); i++)
        if (w[i][0] != '-' && !files_.readOnlyLocked(w[i]))
            ::unlink(files_.hostPath(w[i]).c_str());
}

void ShellTools::touchLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    for (std::size_t i = 1; i < w.size(); i++) {
        if (files_.readOnlyLocked(w[i]))
            continue;
        const int fd = ::open(files_.hostPath(w[i]).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
        if (fd >= 0)
            ::close(fd);
    }
}

void ShellTools::mkdirLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    bool parents = false;
    std::error_code error;
    for (std::size_t i = 1; i < w.size(); i++) {
        if (w[i] == "-p")
            parents = true;
        else if (parents)
            fs::create_directories(files_.hostPath(w[i]), error);
        else
            ::mkdir(files_.hostPath(w[i]).c_str(), 0755);
    }
}

void ShellTools::mvLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    std::size_t i = 1;
    while (i < w.size() && w[i][0] == '-')
        i++;
    if (i + 1 < w.size() && !files_.readOnlyLocked(w[i]) && !files_.readOnlyLocked(w[i + 1]))
        (void)std::rename(files_.hostPath(w[i]).c_str(), files_.hostPath(w[i + 1]).c_str());
}

void ShellTools::cpLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    if (w.size() >= 3 && !files_.readOnlyLocked(w[2]))
        if (const auto data = readHostFile(files_.hostPath(w[1])))
            writeHostFile(files_.hostPath(w[2]), *data);
}

// tail -n 1 FILE: the last line, up to a zero byte in it.
void ShellTools::tailLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    if (w.size() < 4 || w[1] != "-n" || w[2] != "1")
        return;
    const auto data = readHostFile(files_.hostPath(w[3]));
    if (!data || data->empty())
        return;
    std::size_t end = data->size();
    if ((*data)[end - 1] == '\n')
        end--;
    std::size_t start = end;
    while (start > 0 && (*data)[start - 1] != '\n')
        start--;
    const std::string last = data->substr(start, end - start);
    run.out += last.substr(0, last.find('\0')) + "\n";
}

// df through grep ramcache: the RAM disk's line once it is mounted.
void ShellTools::dfLocked(const ProgramRun &run)
{
    if (files_.ramDiskMountedLocked() && run.line.find("grep ramcache") != std::string::npos)
        run.out += "/dev/ram1                 7.7M     14.0K      7.3M   0% /ramcache\n";
}

void ShellTools::mountLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    if (w.size() >= 3 && w[1] == "/dev/ram1" && w[2] == "/ramcache")
        files_.mountRamDiskLocked();
}

// ifconfig eth0 ADDRESS netmask MASK.
void ShellTools::ifconfigLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    if (w.size() < 5 || w[1] != "eth0" || w[3] != "netmask")
        return;
    int bits = 0;
    unsigned a = 0, b = 0, c = 0, d = 0;
    // A netmask's four octets; the count says all four were read.
    // NOLINTNEXTLINE(cert-err34-c)
    if (std::sscanf(w[4].c_str(), "%u.%u.%u.%u", &a, &b, &c, &d) == 4) {
        std::uint32_t mask = (a << 24) | (b << 16) | (c << 8) | d;
        for (; mask & 0x80000000u; mask <<= 1)
            bits++;
    }
    eth0_ = w[2] + "/" + std::to_string(bits);
}

} // namespace zarvent::sim
