// The time one DAC word takes: the daemon's own DAC code over the Linux
// implementation of the OS seam, writing the three lines' value files with
// the descriptors it keeps open. Run it where /sys/class/gpio holds
// gpio96, gpio106 and gpio118 (dac_word.sh gives it a tmpfs of its own in a
// private mount namespace; the board's sysfs is slower per write).
//   dac_word [WORDS]
#include "hardware/dac.h"
#include "hardware/runner.h"
#include "platform/platform_linux.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

int main(int argc, char **argv)
{
    const int words = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20000;
    zarvent::LinuxPlatform platform;
    zarvent::Runner runner(platform);
    zarvent::Gpio gpio(platform, runner);
    zarvent::Dac dac(platform, gpio);
    dac.configureLines();
    std::vector<double> us;
    us.reserve(static_cast<std::size_t>(words));
    for (int i = 0; i < words; ++i) {
        const auto start = std::chrono::steady_clock::now();
        dac.writeWord(3, static_cast<unsigned>(32768 + i % 1000));
        const auto end = std::chrono::steady_clock::now();
        us.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    }
    std::sort(us.begin(), us.end());
    std::printf("one DAC word (24 bits, 74 line writes): median %.1f us, 99th percentile %.1f us "
                "(%d words)\n",
                us[us.size() / 2], us[us.size() * 99 / 100], words);
    return 0;
}
