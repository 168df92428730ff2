// Watches a running board image from outside and prints the delay from the
// rising edge of the pulse on line 19 to the cycle's first command: the next
// start of the image's /bin/sh (the daemon starts every command through it).
// The watcher takes its time stamps when it reads the events, so each figure
// is off by the watcher's own wake-up latency, tens of microseconds.
//   pulse_watch ROOT SECONDS
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <vector>

namespace {

double nowUs()
{
    using namespace std::chrono;
    return static_cast<double>(
               duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count()) /
           1000.0;
}

// The level a sysfs value file holds now. The pulse writer truncates the file
// before it writes the new level: wait out that moment.
int level(const std::string &path)
{
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return -1;
        char c = 0;
        const long n = ::read(fd, &c, 1);
        ::close(fd);
        if (n == 1 && (c == '0' || c == '1'))
            return c - '0';
    }
    return -1;
}

void summary(const char *what, std::vector<double> v)
{
    if (v.empty()) {
        std::printf("%-34s none seen\n", what);
        return;
    }
    std::sort(v.begin(), v.end());
    std::printf("%-34s median %.0f us, max %.0f us (%zu seen)\n", what, v[v.size() / 2], v.back(),
                v.size());
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: pulse_watch ROOT SECONDS\n");
        return 2;
    }
    const std::string root = argv[1];
    const double seconds = std::atof(argv[2]);
    const int in = inotify_init1(IN_CLOEXEC);
    if (in < 0) {
        std::perror("inotify_init1");
        return 1;
    }
    const std::string pulsePath = root + "/sys/class/gpio/gpio19/value";
    const int pulse = inotify_add_watch(in, pulsePath.c_str(), IN_MODIFY);
    const int shell = inotify_add_watch(in, (root + "/bin/sh").c_str(), IN_OPEN);
    if (pulse < 0 || shell < 0) {
        std::perror("inotify_add_watch");
        return 1;
    }

    std::vector<double> toFirstCommand;
    int pulseLevel = level(pulsePath);
    double edge = -1; // time of the last rising edge not yet followed by a command
    const double end = nowUs() + seconds * 1e6;
    std::array<char, 64 * 1024> buffer{};
    while (nowUs() < end) {
        pollfd p{in, POLLIN, 0};
        if (::poll(&p, 1, 100) <= 0)
            continue;
        const long n = ::read(in, buffer.data(), buffer.size());
        const double t = nowUs();
        if (n <= 0)
            continue;
        for (long at = 0; at < n;) {
            inotify_event e{};
            std::copy_n(buffer.data() + at, sizeof e, reinterpret_cast<char *>(&e));
            at += static_cast<long>(sizeof e + e.len);
            if (e.wd == pulse) {
                const int now = level(pulsePath);
                if (now == 1 && pulseLevel == 0)
                    edge = t;
                if (now >= 0)
                    pulseLevel = now;
            } else if (e.wd == shell && edge >= 0) {
                toFirstCommand.push_back(t - edge);
                edge = -1;
            }
        }
    }
    summary("pulse edge to the first command", toFirstCommand);
    return 0;
}
