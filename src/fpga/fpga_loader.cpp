#include "fpga/fpga_loader.h"

#include <cstring>
#include <string>

#include "hardware/board_map.h"
#include "hardware/gpio.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"
#include "state/shared_state.h"

namespace zarvent {

namespace {
constexpr std::size_t kAnswerBuffer = 200;
constexpr std::size_t kAnswerCompare = 10;
} // namespace

bool fpgaAnswered(const char *line)
{
    const std::size_t len = ::strnlen(line, kAnswerCompare);
    return len == std::strlen(fpga::kConfiguredAnswer) + 1 &&
           std::strncmp(line, fpga::kConfiguredAnswer, len - 1) == 0;
}

void FpgaLoader::setup()
{
    gpio_.exportPin(pin::kFpgaCheck);
    gpio_.exportPin(pin::kFpgaSpare);
    gpio_.setDirectionIn(pin::kFpgaCheck);
    gpio_.setDirectionIn(pin::kFpgaSpare);
}

bool FpgaLoader::attempt()
{
    // Register 1 takes the control value just read; a read that failed is
    // not written, and the attempt counts as failed. So does a write that
    // cannot be started or answers with fewer than five lines.
    const auto control = registers_.readControl();
    if (!control)
        return false;
    const auto answer = registers_.writeSyncAnswered(*control, kAnswerBuffer);
    return answer && fpgaAnswered(answer->c_str());
}

void FpgaLoader::loadUntilConfigured()
{
    while (!configured_ && !platform_.stopRequested()) {
        // A loader that cannot start still leaves the checks to find an FPGA
        // configured before (a restart of the daemon alone).
        bool killed = false;
        runner_.run("./wrFPGA --file Version_1.rbf", PipeMode::Read, &killed);
        progress_.fetch_add(1, std::memory_order_relaxed);
        for (int check = 0; !killed && check < kChecksPerLoad && !platform_.stopRequested();
             ++check) {
            configured_ = attempt();
            progress_.fetch_add(1, std::memory_order_relaxed);
            if (configured_) {
                shared_.fpgaConfigured = true;
                return;
            }
            platform_.sleepSeconds(1);
        }
        if (!reloadSaid_ && !platform_.stopRequested()) {
            reloadSaid_ = true;
            platform_.writeError(killed ? "zarvent: the FPGA loader was killed at its deadline; "
                                          "loading the FPGA again\n"
                                        : "zarvent: the FPGA has not answered within a minute "
                                          "of its load; loading it again\n");
        }
    }
}

void FpgaLoader::run()
{
    setup();
    while (!platform_.stopRequested()) {
        loadUntilConfigured();
        progress_.fetch_add(1, std::memory_order_relaxed);
        platform_.sleepSeconds(2);
    }
}

} // namespace zarvent
