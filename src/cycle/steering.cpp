#include "cycle/steering.h"

#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <vector>

#include "hardware/board_map.h"
#include "hardware/dac.h"
#include "hardware/parsers.h"
#include "hardware/registers.h"
#include "platform/files.h"
#include "state/cycle_time.h"

// The law must give the same codes on the board as on a PC: products rounded
// to double before they are added (the build uses -ffp-contract=off) and no
// excess precision kept in registers.
#if FLT_EVAL_METHOD != 0
#error "the steering law needs double arithmetic without excess precision"
#endif

namespace zarvent {

namespace {

constexpr const char *kCentreFile = "/usr/bin/Zarvent/dac_voltage";
constexpr long kOffsetLimit = 10000;
constexpr std::int32_t kDacMax = 65535;

std::string twoDigits(int v)
{
    return formatText("%02d", v);
}

} // namespace

SteeringStep steeringLaw(std::int32_t centre, long offset, std::int32_t previousFiltered,
                         std::int64_t integral)
{
    SteeringStep r;
    r.error = static_cast<std::int32_t>(std::clamp(offset, -kOffsetLimit, kOffsetLimit));
    double filtered = 0.95 * static_cast<double>(previousFiltered);
    filtered = filtered + 0.05 * static_cast<double>(r.error);
    r.filtered = saturateToInt32(filtered);
    r.integral = integral + r.error + r.filtered;
    r.difference = std::int64_t{r.filtered} - r.error;
    double u = static_cast<double>(centre);
    u = u + 0.4 * static_cast<double>(r.filtered);
    u = u + 0.005 * static_cast<double>(r.integral);
    u = u - 0.05 * static_cast<double>(r.difference);
    r.control = saturateToInt32(u);
    return r;
}

std::uint32_t dacCode(std::int32_t control)
{
    return static_cast<std::uint32_t>(std::clamp(control, 0, kDacMax));
}

std::string chartFileName(const std::tm &t)
{
    return std::string(chart::kDirectory) + "/ptp_data_" + std::to_string(t.tm_year + 1900) + "~" +
           twoDigits(t.tm_mon + 1) + "~" + twoDigits(t.tm_mday) + "_" + twoDigits(t.tm_hour) + "-" +
           twoDigits(t.tm_min);
}

bool isChartFileName(const std::string &name)
{
    // ptp_data_YYYY~MM~DD_hh-mm
    static constexpr std::string_view kShape = "ptp_data_9999~99~99_99-99";
    if (name.size() != kShape.size())
        return false;
    for (std::size_t i = 0; i < kShape.size(); ++i) {
        const bool digit = name[i] >= '0' && name[i] <= '9';
        if (kShape[i] == '9' ? !digit : name[i] != kShape[i])
            return false;
    }
    return true;
}

Steering::Steering(Platform &platform, Registers &registers, Dac &dac)
    : platform_(platform), registers_(registers), dac_(dac),
      centre_(static_cast<std::int32_t>(dac::kCentreCode)), codeSent_(dac::kCentreCode)
{}

void Steering::loadCentre()
{
    // A missing file, or one that holds no number that fits 32 bits, keeps
    // the previous centre: "-3000000000" must not pin the DAC at full scale.
    const auto text = readFileStart(platform_, kCentreFile, 64);
    if (!text)
        return;
    if (const auto value = parseDecimal(*text))
        centre_ = *value;
}

void Steering::sendDefaults()
{
    loadCentre();
    dac_.writeWord(dac::kReference, dac::kReferenceValue);
    // A negative centre is sent as 0, never as a huge unsigned number.
    codeSent_ = dacCode(centre_);
    dac_.writeWord(dac::kLoadCode, codeSent_);
}

void Steering::trimCharts(const std::string &current)
{
    std::vector<std::string> names;
    for (std::string &name : platform_.listDirectory(chart::kDirectory))
        if (isChartFileName(name))
            names.push_back(std::move(name));
    // The names sort as the minutes they hold.
    std::sort(names.begin(), names.end());
    const std::string currentName = current.substr(current.rfind('/') + 1);
    // Files of minutes after the current one were written before the clock
    // was stepped back: they go first, or retention would keep them as the
    // newest and delete each new minute instead.
    while (!names.empty() && names.back() > currentName) {
        platform_.removeFile(std::string(chart::kDirectory) + "/" + names.back());
        names.pop_back();
    }
    // The current minute's file is made after this: it counts already.
    const std::size_t coming = std::binary_search(names.begin(), names.end(), currentName) ? 0 : 1;
    std::size_t first = 0;
    auto removeOldest = [&] {
        if (names[first] == currentName)
            return false;
        platform_.removeFile(std::string(chart::kDirectory) + "/" + names[first]);
        ++first;
        return true;
    };
    while (names.size() - first + coming > static_cast<std::size_t>(chart::kFilesKept) &&
           removeOldest()) {
    }
    for (;;) {
        const auto usage = platform_.fileSystemUsage(chart::kDirectory);
        const auto afterNew = [coming](std::uint64_t free) {
            return free - std::min<std::uint64_t>(free, coming);
        };
        const bool tight =
            usage && (afterNew(usage->freeBlocks) * chart::kFreeQuarter < usage->blocks ||
                      afterNew(usage->freeInodes) * chart::kFreeQuarter < usage->inodes);
        if (!tight || first == names.size() || !removeOldest())
            break;
    }
    chartFiles_ = names.size() - first + coming;
}

void Steering::chartPoint(std::int32_t offset, const std::tm &t)
{
    const std::string name = chartFileName(t);
    if (name != lastChart_) {
        // A new minute starts a new file: room is made before it is created,
        // so that a RAM disk out of inodes frees some even when this file
        // cannot be made.
        lastChart_ = name;
        trimCharts(name);
    }
    OutputFile file(platform_, name, OutputFile::Mode::Append);
    if (!file.isOpen())
        return; // RAM disk full or absent: the point is dropped
    file.write(formatText("[new Date(\"%02d/%02d/%d %02d:%02d:%02d\"), %ld],\n", t.tm_mon + 1,
                          t.tm_mday, t.tm_year + 1900, t.tm_hour, t.tm_min, t.tm_sec,
                          static_cast<long>(offset)));
    (void)file.close(); // a point that does not fit is dropped, as one that cannot be opened
}

void Steering::steer(std::int32_t offsetNs, const CycleTime &time)
{
    dac_.writeWord(dac::kReference, dac::kReferenceValue);
    loadCentre();
    const SteeringStep s = steeringLaw(centre_, offsetNs, filtered_, integral_);
    integral_ = s.integral;
    filtered_ = s.filtered;
    chartPoint(s.error, time.local);
    const std::uint32_t code = dacCode(s.control);
    // Register 1 = register 2 with the sync bit set; a failed read is not
    // written.
    if (const auto control = registers_.readControl())
        registers_.write(fpga::kSyncRegister, *control | fpga::kSyncBit, PipeMode::Write);
    codeSent_ = code;
    dac_.writeWord(dac::kLoadCode, codeSent_);
}

} // namespace zarvent
