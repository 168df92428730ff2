#include "fpga/ThreadFPGA.h"

#include <cstring>
#include <string>

#include "hardware/gpio_work.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"

namespace zarvent {

namespace {
constexpr std::size_t kAnswerBuffer = 200;
constexpr std::size_t kAnswerCompare = 10;
} // namespace

bool fpgaAnswered(const char *line)
{
    const std::size_t len = ::strnlen(line, kAnswerCompare);
    return len == std::strlen(FPGA_A5) + 1 && std::strncmp(line, FPGA_A5, len - 1) == 0;
}

void FpgaThread::InitFPGA()
{
    gpio_.PinAddToWorkspace("182");
    gpio_.PinAddToWorkspace("13");
    gpio_.PinSetDirectionIn("182");
    gpio_.PinSetDirectionIn("13");
}

bool FpgaThread::attempt()
{
    // Register 1 takes the control value just read; a read that failed is
    // not written, and the attempt counts as failed. So does a write that
    // cannot be started or answers with fewer than five lines.
    const auto control = registers_.Read_Control();
    if (!control)
        return false;
    const CommandLines answer = runner_.readLines(
        "./spiWrite -m 1 -l 3 -d 1 1 " + std::to_string(*control) + " 0", 5, kAnswerBuffer);
    return answer.count >= 5 && fpgaAnswered(answer.last.c_str());
}

void FpgaThread::BurnFPGA()
{
    if (cfgOk == 0)
        runner_.run("./wrFPGA --file Version_1.rbf", PipeMode::Read); // goes on if it cannot start
    while (cfgOk != 1 && !platform_.stopRequested()) {
        cfgOk = attempt() ? 1 : 0;
        progress_.fetch_add(1, std::memory_order_relaxed);
        if (cfgOk == 1)
            return;
        platform_.sleepSeconds(1);
    }
}

void FpgaThread::SrvFPGA()
{
    BurnFPGA();
}

void FpgaThread::ThreadSrvFPGA()
{
    InitFPGA();
    while (!platform_.stopRequested()) {
        SrvFPGA();
        progress_.fetch_add(1, std::memory_order_relaxed);
        platform_.sleepSeconds(2);
    }
}

} // namespace zarvent
