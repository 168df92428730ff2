#include "statistics/status_page.h"

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstring>

#include "hardware/parsers.h"
#include "hardware/runner.h"
#include "platform/files.h"
#include "platform/platform.h"
#include "state/shared_state.h"
#include "statistics/counters.h"

namespace zarvent {

namespace {

constexpr const char *kPage = "/ramcache/zarvent/ntp_data.txt";
constexpr const char *kLock = "/ramcache/zarvent/lock";
constexpr const char *kEmulationFile = "/usr/bin/Zarvent/nmea_emul_flag.txt";

// a = (1 - t) / (1 + t), b = t / (1 + t), t = tan(pi * 0.001): a + 2b = 1,
// the filter's gain at zero frequency is 1.
constexpr double kA = 0.9937364715416146;
constexpr double kB = 0.0031317642291927056;

} // namespace

void OffsetFilter::run(long x, std::int32_t &mean, std::int32_t &jitter)
{
    const float z = meanState;
    const float q = varianceState;
    double zt = kA * static_cast<double>(z);
    zt = zt + kB * static_cast<double>(x);
    const float z1 = static_cast<float>(zt);
    const float y = z + z1;
    const float e = y - static_cast<float>(x);
    const float e2 = e * e;
    double qt = kA * static_cast<double>(q);
    qt = qt + kB * static_cast<double>(e2);
    const float q1 = static_cast<float>(qt);
    const float v = q + q1;
    meanState = z1;
    varianceState = q1;
    mean = saturateToInt32(static_cast<double>(y));
    jitter = saturateToInt32(std::sqrt(static_cast<double>(v)));
}

const char *antennaText(unsigned code)
{
    switch (code) {
    case 5:
        return "Short";
    case 6:
        return "Off";
    case 7:
        return "Ok";
    default:
        return "      ";
    }
}

bool StatusPage::emulationOn()
{
    // Only the first character counts: "On" for the digit 1.
    const auto text = readFileStart(platform_, kEmulationFile, 1);
    return text && parseDecimal(*text).value_or(0) == 1;
}

void StatusPage::write(const PageInput &in, const PacketHistory &packets)
{
    if (in.blockJitterNs)
        jitterNs_ = *in.blockJitterNs;
    // A lock that cannot be created (RAM disk missing) does not stop the
    // page: the page has its own failure path.
    touchFile(platform_, kLock);

    OutputFile page(platform_, kPage, OutputFile::Mode::Replace);
    if (!page.isOpen()) {
        const int error = errno;
        platform_.writeError(std::string("Cannot open file\n: ") + std::strerror(error) + "\n");
        return; // the lock stays until a later cycle removes it
    }

    page.write("<b>UTC</b>");
    page.write(formatText("\t\t<b>Date:</b>\t%s\n\t\t<b>Time:</b>\t%s\n", in.now.date.c_str(),
                          in.now.time.c_str()));

    const long x = in.offsetNs;
    std::int32_t mean = 0;
    if (in.steering)
        filter_.run(x, mean, jitterNs_);
    page.write(formatText("<b>Current Offset [ns]:</b>\t%ld\n<b>Mean Offset [ns]:</b>\t%ld\n"
                          "<b>Jitter [ns]:</b>\t\t%ld\n<b>Reference time:</b>    %s\n",
                          x, static_cast<long>(mean), static_cast<long>(jitterNs_),
                          referenceName(shared_.reference)));

    page.write(shared_.alarm ? "<b>Alarm at:</b> " : "<b>Uptime from:</b> ");
    const DateTime event = shared_.event();
    page.write(formatText("\t<b>Date:</b>\t%s\n\t\t<b>Time:</b>\t%s\n", event.date.c_str(),
                          event.time.c_str()));

    page.write("\n<b>PTP Packets:\t\tLast\tAverage</b>\n");
    const std::tm &t = in.time.local;
    const CounterHistory &req = packets.requests;
    const CounterHistory &resp = packets.responses;
    const auto slot = [](int i) { return static_cast<std::size_t>(i); };
    const int s = t.tm_sec > 59 ? 59 : t.tm_sec;
    const int previous = s == 0 ? 59 : s - 1;
    const int minute = t.tm_hour * 60 + t.tm_min;
    const int day = t.tm_mday >= 1 && t.tm_mday <= 31 ? t.tm_mday : 0;
    auto low32 = [](std::uint64_t v) {
        return static_cast<unsigned>(static_cast<std::uint32_t>(v));
    };
    page.write(formatText(
        "<b>Request per Second:</b>\t%u\t%.2f\n<b>Response per Second:</b>\t%u\t%.2f\n"
        "<b>Request per Minute:</b>\t%u\t%.2f\n<b>Response per Minute:</b>\t%u\t%.2f\n"
        "<b>Request per Hour:</b>\t%" PRIu64 "\t%.2f\n<b>Response per Hour:</b>\t%" PRIu64
        "\t%.2f\n<b>Request per Day:</b>\t%" PRIu64 "\n<b>Response per Day:</b>\t%" PRIu64 "\n",
        low32(req.seconds[slot(previous)]), static_cast<double>(req.average),
        low32(resp.seconds[slot(previous)]), static_cast<double>(resp.average),
        low32(req.minutes[slot(minute)]), static_cast<double>(req.minuteSum),
        low32(resp.minutes[slot(minute)]), static_cast<double>(resp.minuteSum),
        req.hours[slot(t.tm_hour)], static_cast<double>(req.hourSum), resp.hours[slot(t.tm_hour)],
        static_cast<double>(resp.hourSum), req.days[slot(day)], resp.days[slot(day)]));

    page.write(formatText("\n<b>Antenna:</b> %s\n", antennaText(shared_.antennaCode)));
    const bool emulation = emulationOn();
    page.write(emulation ? "<b>GPS Emulation:</b>\tOn\n" : "<b>GPS Emulation:</b>\tOff\n");
    shown_ = {x, static_cast<long>(mean), static_cast<long>(jitterNs_), emulation};

    page.write(formatText("%s\n%s\n", in.now.date.c_str(), in.now.time.c_str()));
    // A page that could not be written whole leaves the old one for the web
    // interface; the next cycle writes it anew.
    (void)page.close();
    runner_.run(std::string("rm ") + kLock, PipeMode::Read);
}

} // namespace zarvent
