#include "hardware/registers.h"

#include "daemon/shared.h"
#include "hardware/parsers.h"
#include "hardware/runner.h"

namespace zarvent {

std::optional<std::uint64_t> Registers::read(const std::string &line, int calls, int dataBytes)
{
    const CommandLines out = runner_.readLines(line, calls);
    if (out.count < 5)
        return std::nullopt;
    return parseRegisterLine(out.last, dataBytes);
}

std::optional<unsigned> Registers::Read_Control()
{
    const auto value = read(reg::kRead2, 6, 1);
    if (!value)
        return std::nullopt;
    return static_cast<unsigned>(*value);
}

bool Registers::write(int reg, unsigned value, PipeMode mode)
{
    return runner_
        .run("./spiWrite -m 1 -l 3 -d 1 " + std::to_string(reg) + " " + std::to_string(value) +
                 " 0",
             mode)
        .has_value();
}

std::optional<unsigned> Registers::modifyRegister2(unsigned set, unsigned clear, PipeMode mode)
{
    PlatformLocker locker(platform_, shared_.register2);
    const auto value = Read_Control();
    if (!value)
        return std::nullopt;
    const unsigned written = (*value | set) & ~clear;
    write(2, written, mode);
    return written;
}

} // namespace zarvent
