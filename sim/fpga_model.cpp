#include "fpga_model.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "text.h"

namespace zarvent::sim {

namespace {

// The bytes of a register write, the first the least significant.
std::uint64_t writtenValue(const std::vector<std::string> &w, std::size_t first, int count)
{
    std::uint64_t v = 0;
    for (std::size_t k = 0; k < static_cast<std::size_t>(count) && first + k < w.size(); k++)
        v |= (std::strtoull(w[first + k].c_str(), nullptr, 10) & 0xFF) << (8 * k);
    return v;
}

// The fifth line of an unconfigured FPGA's answer: nothing but ones.
void appendUnconfigured(std::string &out, int count)
{
    out += "FF FF";
    for (int k = 0; k < count; k++)
        out += " FF";
    out += "\n";
}

} // namespace

FpgaModel::FpgaModel(BoardMutex &mutex, BoardFiles &files) : mutex_(mutex), files_(files) {}

void FpgaModel::runRegisterToolLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    std::string &out = run.out;
    const std::size_t nw = w.size();
    int m = -1, l = -1, d = -1;
    std::size_t i = 1;
    while (i + 1 < nw && w[i][0] == '-') {
        const int v = static_cast<int>(std::strtol(w[i + 1].c_str(), nullptr, 10));
        if (w[i] == "-m")
            m = v;
        else if (w[i] == "-l")
            l = v;
        else if (w[i] == "-d")
            d = v;
        i += 2;
    }
    if (i >= nw || m < 0 || d < 0 || d > 8) {
        out += "usage: spiWrite -m mode -l length -d count register [bytes]\n";
        return;
    }
    int reg = static_cast<int>(std::strtol(w[i++].c_str(), nullptr, 10));
    if (reg < 0 || reg >= 64)
        reg = 0;
    const auto r = static_cast<std::size_t>(reg);
    if (toolFault_ == RegisterToolFault::Garbage) {
        appendf(out, "\x01\x7f garbage %d\n###\n\n\xff\xfe\n", reg);
        out += "AA AA ZZ \x80\x81 ?? xyz\n";
        return;
    }
    if (toolFault_ == RegisterToolFault::Short) {
        appendf(out, "spiWrite: mode %d length %d data %d\nregister %d\n", m, l, d, reg);
        return;
    }
    appendf(out, "spiWrite: mode %d length %d data %d\n", m, l, d);
    appendf(out, "register %d\n", reg);
    out += "tx:";
    for (std::size_t k = i - 1; k < nw; k++)
        out += " " + w[k];
    out += "\ntransfer complete\n";
    if (m == 0) {
        if (onRead_) {
            const RegisterReadHook hook = onRead_;
            mutex_.unlock();
            hook(reg);
            mutex_.lock();
        }
        if (!configured_) {
            appendUnconfigured(out, d);
            return;
        }
        out += "AA AA";
        for (int k = 0; k < d; k++)
            appendf(out, " %02X", static_cast<unsigned>((registers_[r] >> (8 * k)) & 0xFF));
        out += "\n";
        if (printed_.size() >= 32)
            printed_.erase(printed_.begin());
        printed_.emplace_back(reg, registers_[r]);
        return;
    }
    const std::uint64_t data = writtenValue(w, i, d);
    if (reg == 1 || reg == 2) {
        const bool fromRegister = std::any_of(printed_.begin(), printed_.end(), [&](const auto &p) {
            return (p.first == 2 || p.first == 48) &&
                   (p.second & ~std::uint64_t{7}) == (data & ~std::uint64_t{7});
        });
        unreadWrites_ += fromRegister ? 0 : 1;
    }
    // An FPGA without its bitstream takes nothing in.
    if (!configured_) {
        appendUnconfigured(out, d);
        return;
    }
    registers_[r] = data;
    if (onWrite_) {
        const RegisterWriteHook hook = onWrite_;
        mutex_.unlock();
        hook(reg, data);
        mutex_.lock();
    }
    out += "AA AA";
    for (int k = 0; k < d; k++)
        out += " A5";
    out += "\n";
}

void FpgaModel::runLoaderLocked(const ProgramRun &run)
{
    const std::vector<std::string> &w = run.words;
    loaderRuns_++;
    struct stat st {};
    if (w.size() >= 3 && ::stat(files_.hostPath(w[2]).c_str(), &st) == 0 && !loaderBroken_)
        configured_ = true;
    appendf(run.out, "wrFPGA: loaded %s\n", w.size() >= 3 ? w[2].c_str() : "");
}

std::size_t FpgaModel::printedMarkLocked() const
{
    return printed_.size();
}

void FpgaModel::forgetPrintedSinceLocked(std::size_t mark)
{
    printed_.resize(std::min(mark, printed_.size()));
}

void FpgaModel::setRegister(int reg, std::uint64_t value)
{
    const BoardLocker lock(mutex_);
    if (reg >= 0 && reg < 64)
        registers_[static_cast<std::size_t>(reg)] = value;
}

std::uint64_t FpgaModel::registerValue(int reg) const
{
    const BoardLocker lock(mutex_);
    return reg >= 0 && reg < 64 ? registers_[static_cast<std::size_t>(reg)] : 0;
}

void FpgaModel::setConfigured(bool configured)
{
    const BoardLocker lock(mutex_);
    configured_ = configured;
}

void FpgaModel::setRegisterToolFault(RegisterToolFault fault)
{
    const BoardLocker lock(mutex_);
    toolFault_ = fault;
}

int FpgaModel::unreadRegisterWrites() const
{
    const BoardLocker lock(mutex_);
    return unreadWrites_;
}

void FpgaModel::setLoaderBroken(bool broken)
{
    const BoardLocker lock(mutex_);
    loaderBroken_ = broken;
}

void FpgaModel::setRegisterHooks(RegisterReadHook onRead, RegisterWriteHook onWrite)
{
    const BoardLocker lock(mutex_);
    onRead_ = std::move(onRead);
    onWrite_ = std::move(onWrite);
}

int FpgaModel::loaderRuns() const
{
    const BoardLocker lock(mutex_);
    return loaderRuns_;
}

} // namespace zarvent::sim
