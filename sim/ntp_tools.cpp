#include "ntp_tools.h"

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "text.h"

namespace zarvent::sim {

namespace {

const char *const kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// ntpq -c clockvar's output for the NMEA driver.
std::string formatClockvar(std::int64_t unixUs, char status)
{
    const auto secs = static_cast<std::time_t>(unixUs / 1000000);
    std::tm t{};
    ::gmtime_r(&secs, &t);
    const std::string body =
        status == 'A'
            ? format("GPRMC,%02d%02d%02d.00,A,5540.1234,N,03736.5678,E,0.00,0.00,%02d%02d%02d,,,A",
                     t.tm_hour, t.tm_min, t.tm_sec, t.tm_mday, t.tm_mon + 1, t.tm_year % 100)
            : format("GPRMC,%02d%02d%02d.00,%c,,,,,,,%02d%02d%02d,,,N", t.tm_hour, t.tm_min,
                     t.tm_sec, status, t.tm_mday, t.tm_mon + 1, t.tm_year % 100);
    unsigned sum = 0;
    for (const char c : body)
        sum ^= static_cast<unsigned char>(c);
    return format("associd=0 status=0000 no events, clk_unspec,\n"
                  "device=\"NMEA GPS Clock\",\n"
                  "timecode=\"$%s*%02X\",\n"
                  "poll=3418, noreply=0, badformat=0, baddata=0,\n"
                  "stratum=0, refid=GPS, flags=5\n",
                  body.c_str(), sum);
}

} // namespace

NtpTools::NtpTools(BoardMutex &mutex, BoardClock &clock) : mutex_(mutex), clock_(clock) {}

void NtpTools::setPeer(Peer peer)
{
    const BoardLocker lock(mutex_);
    peer_ = peer;
}

void NtpTools::setRmcStatus(char status)
{
    const BoardLocker lock(mutex_);
    rmc_ = status;
}

char NtpTools::rmcStatus() const
{
    const BoardLocker lock(mutex_);
    return rmc_;
}

void NtpTools::runNtptimeLocked(const ProgramRun &run) const
{
    run.out += formatNtptime(clock_.realtimeUsLocked(), kTaiOffset);
}

void NtpTools::runNtpqLocked(const ProgramRun &run) const
{
    const std::vector<std::string> &w = run.words;
    if (w.size() >= 3 && w[1] == "-c" && w[2] == "clockvar")
        run.out += formatClockvar(clock_.realtimeUsLocked(), rmc_);
    else if (w.size() >= 2 && w[1] == "-p")
        peersLocked(run.line, run.out);
}

void NtpTools::peersLocked(const std::string &commandLine, std::string &out) const
{
    std::string all =
        "     remote           refid      st t when poll reach   delay   offset  jitter\n"
        "==============================================================================\n";
    if (peer_ == Peer::System || peer_ == Peer::Both)
        all += "*GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   "
               "0.003\n";
    else if (peer_ == Peer::Pps)
        all += "oGPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000    0.000   "
               "0.004\n";
    else
        all += " GPS_NMEA(0)     .GPS.            0 l    5   16  377    0.000   -0.012   "
               "0.003\n";
    if (peer_ == Peer::Both)
        all += "oGPS_NMEA(1)     .PPS.            0 l    -    8  377    0.000    0.000   "
               "0.004\n";
    all += "+darwin.kenyonra 127.67.113.92    2 u   50   64  377   28.478    4.232   0.953\n";
    // A pipeline into grep is one command for the model.
    std::string pattern;
    if (commandLine.find("grep '*G'") != std::string::npos)
        pattern = "*G";
    else if (commandLine.find("grep 'oG'") != std::string::npos)
        pattern = "oG";
    for (const std::string &row : splitWords(all, "\n", SIZE_MAX))
        if (pattern.empty() || row.find(pattern) != std::string::npos)
            out += row + "\n";
}

std::string NtpTools::formatNtptime(std::int64_t unixUs, int tai)
{
    const auto secs = static_cast<std::time_t>(unixUs / 1000000);
    const auto usec = static_cast<unsigned>(unixUs % 1000000);
    std::tm t{};
    ::gmtime_r(&secs, &t);
    const auto ntpSecs = static_cast<std::uint32_t>(static_cast<std::int64_t>(secs) + 2208988800LL);
    // Microsecond mode: the fraction is rounded to whole microseconds, so its
    // last three hex digits print as 000.
    const auto fraction =
        static_cast<std::uint32_t>((static_cast<std::uint64_t>(usec) << 32) / 1000000u) &
        0xFFFFF000u;
    return format("ntp_gettime() returns code 0 (OK)\n"
                  "  time %08lx.%08lx  %s, %s %2d %4d %2d:%02d:%02d.%03u, (.%06u),\n"
                  "  maximum error 16000 us, estimated error 16 us, TAI offset %d\n"
                  "ntp_adjtime() returns code 0 (OK)\n"
                  "  modes 0x0 (),\n"
                  "  offset 0.000 us, frequency 0.000 ppm, interval 1 s,\n"
                  "  maximum error 16000 us, estimated error 16 us,\n"
                  "  status 0x1 (PLL),\n"
                  "  time constant 2, precision 1.000 us, tolerance 500 ppm,\n",
                  static_cast<unsigned long>(ntpSecs), static_cast<unsigned long>(fraction),
                  kWeekdays[t.tm_wday], kMonths[t.tm_mon], t.tm_mday, t.tm_year + 1900, t.tm_hour,
                  t.tm_min, t.tm_sec, usec / 1000, usec, tai);
}

} // namespace zarvent::sim
