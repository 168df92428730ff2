#include "hardware/registers.h"

#include "hardware/board_map.h"
#include "hardware/parsers.h"
#include "hardware/runner.h"

namespace zarvent {

namespace {

// The board's read command lines, byte for byte (register 28's has one data
// byte too many; the FPGA ignores it).
constexpr const char *kReadControl = "./spiWrite -m 0 -l 3 -d 1 2 0";
constexpr const char *kReadPhase = "./spiWrite -m 0 -l 6 -d 4 14 0 0 0 0";
constexpr const char *kReadRequests = "./spiWrite -m 0 -l 4 -d 2 24 0 0";
constexpr const char *kReadResponses = "./spiWrite -m 0 -l 4 -d 2 26 0 0";
constexpr const char *kReadRelayEvents = "./spiWrite -m 0 -l 3 -d 1 28 0 0";
constexpr const char *kReadCapture = "./spiWrite -m 0 -l 3 -d 1 48 0";
constexpr const char *kHandoverTool = "/usr/bin/Zarvent/spiWrite";

std::string writeLine(int reg, unsigned value)
{
    return "./spiWrite -m 1 -l 3 -d 1 " + std::to_string(reg) + " " + std::to_string(value) + " 0";
}

} // namespace

std::optional<std::uint64_t> Registers::read(const char *what, const char *line, int calls,
                                             int dataBytes)
{
    const CommandLines out = runner_.readLines(line, calls);
    std::optional<std::uint64_t> value;
    if (out.count >= 5)
        value = parseRegisterLine(out.last, dataBytes);
    if (!value)
        runner_.countFailedRead(what);
    return value;
}

std::optional<unsigned> Registers::readControl()
{
    const auto value = read("control", kReadControl, 6, 1);
    if (!value)
        return std::nullopt;
    return static_cast<unsigned>(*value);
}

std::optional<std::uint32_t> Registers::readPhase()
{
    const auto value = read("phase", kReadPhase, 6, 4);
    if (!value)
        return std::nullopt;
    return static_cast<std::uint32_t>(*value);
}

std::optional<std::uint64_t> Registers::readRequests()
{
    return read("requests", kReadRequests, 5, 2);
}

std::optional<std::uint64_t> Registers::readResponses()
{
    return read("responses", kReadResponses, 5, 2);
}

std::optional<unsigned> Registers::readOneByte(const char *what, const char *line)
{
    const auto value = read(what, line, 5, 1);
    if (!value)
        return std::nullopt;
    return static_cast<unsigned>(*value);
}

std::optional<unsigned> Registers::readRelayEvents()
{
    return readOneByte("relay_events", kReadRelayEvents);
}

std::optional<unsigned> Registers::readCaptureControl()
{
    return readOneByte("capture_control", kReadCapture);
}

bool Registers::write(int reg, unsigned value, PipeMode mode)
{
    return runner_.run(writeLine(reg, value), mode).has_value();
}

std::optional<std::string> Registers::writeSyncAnswered(unsigned value, std::size_t bufferSize)
{
    CommandLines answer = runner_.readLines(writeLine(fpga::kSyncRegister, value), 5, bufferSize);
    if (answer.count < 5)
        return std::nullopt;
    return std::move(answer.last);
}

std::optional<unsigned> Registers::modifyControl(unsigned set, unsigned clear, PipeMode mode)
{
    PlatformLocker locker(platform_, controlLock_);
    const auto value = readControl();
    if (!value)
        return std::nullopt;
    const unsigned written = (*value | set) & ~clear;
    if (!write(fpga::kControlRegister, written, mode))
        return std::nullopt;
    return written;
}

void Registers::copyControlToSync(bool syncBit, PipeMode mode)
{
    const auto control = readControl();
    if (!control)
        return;
    write(fpga::kSyncRegister, syncBit ? (*control | fpga::kSyncBit) : (*control & ~fpga::kSyncBit),
          mode);
}

void Registers::releaseClaims(unsigned relayBits)
{
    modifyControl(0, fpga::kReferenceValidBit | relayBits, PipeMode::Read);
    copyControlToSync(false, PipeMode::Read);
}

bool Registers::writeHandover(int reg, unsigned number)
{
    std::string line = kHandoverTool;
    line += " -m 1 -l 3 -d 1 ";
    line += std::to_string(reg);
    line += ' ';
    line += std::to_string(number);
    line += '\n';
    return runner_.run(line, PipeMode::Write).has_value();
}

bool Registers::writeCount(std::uint64_t count)
{
    std::string line = kHandoverTool;
    line += " -m 1 -l 8 -d 6 ";
    line += std::to_string(fpga::kCountRegister);
    for (int k = 0; k < 6; ++k) {
        line += ' ';
        line += std::to_string((count >> (8 * k)) & 0xFF);
    }
    line += '\n';
    return runner_.run(line, PipeMode::Write).has_value();
}

} // namespace zarvent
