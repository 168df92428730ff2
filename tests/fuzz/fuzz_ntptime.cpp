// ntptime's second line: any text, and lines the classic tool prints.
#include <array>
#include <charconv>
#include <cstdio>

#include "fuzz.h"
#include "hardware/parsers.h"
#include "ntp/ntp_parsers.h"

namespace {

using zarvent::fuzz::require;

constexpr std::array<std::string_view, 7> kWeekdays = {"Sun", "Mon", "Tue", "Wed",
                                                       "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// A line the parser took has every column of the tool's format
// "  time %08x.%08x  %s, %s %2d %4d %2d:%02d:%02d.%03u," (x a hex digit, 9 a
// digit, _ a digit or blank, W and M names), and the fields from those columns.
void checkTaken(std::string_view line, const zarvent::NtptimeReading &r)
{
    static constexpr std::string_view kForm =
        "  time xxxxxxxx.xxxxxxxx  WWW, MMM _9 9999 _9:99:99.999,";
    require(line.size() >= kForm.size());
    for (std::size_t i = 0; i < kForm.size(); ++i) {
        const char c = line[i];
        const bool digit = c >= '0' && c <= '9';
        const char f = kForm[i];
        require(f == 'W' || f == 'M' || (f == '9' && digit) || (f == '_' && (digit || c == ' ')) ||
                (f == 'x' && (digit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) ||
                f == c);
    }
    auto two = [&](std::size_t at) {
        return (line[at] == ' ' ? 0 : line[at] - '0') * 10 + line[at + 1] - '0';
    };
    require(std::ranges::count(kWeekdays, line.substr(26, 3)) == 1 &&
            std::ranges::count(kMonths, line.substr(31, 3)) == 1 && two(35) >= 1 && two(35) <= 31 &&
            two(43) <= 23 && two(46) <= 59 && two(49) <= 60);
    std::uint32_t seconds = 0;
    std::from_chars(line.data() + 7, line.data() + 15, seconds, 16);
    require(r.stamp == line.substr(7, 18) && r.dateTime == line.substr(31, 24) &&
            r.ntpSeconds == seconds);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace zarvent;
    if (fuzz::take(data, size) % 2 == 0) {
        const fuzz::Text line(data, size);
        if (const auto r = parseNtptimeLine(line.view()))
            checkTaken(line.view(), *r);
        return 0;
    }
    // A line as the tool prints it, its fields from the input: always taken.
    auto number = [&](std::uint64_t range, int bytes = 2) {
        std::uint64_t v = 0;
        for (int i = 0; i < bytes; ++i)
            v = v << 8 | fuzz::take(data, size);
        return static_cast<unsigned>(v % range);
    };
    const unsigned seconds = number(1ULL << 32, 4);
    const unsigned fraction = number(1ULL << 32, 4);
    const std::string_view weekday = kWeekdays[number(7)];
    const std::string_view month = kMonths[number(12)];
    const unsigned day = 1 + number(31), year = 1000 + number(9000), hour = number(24);
    const unsigned minute = number(60), second = number(61), ms = number(1000);
    char when[32];
    (void)std::snprintf(when, sizeof when, "%.3s %2u %4u %2u:%02u:%02u.%03u", month.data(), day,
                        year, hour, minute, second, ms);
    char line[100];
    const int length =
        std::snprintf(line, sizeof line, "  time %08x.%08x  %.3s, %s, (.%06u),\n", seconds,
                      fraction, weekday.data(), when, ms * 1000 + number(1000));
    const fuzz::Text text(line, static_cast<std::size_t>(length));
    const auto r = parseNtptimeLine(text.view());
    require(r && r->ntpSeconds == seconds && r->dateTime == when);
    checkTaken(text.view(), *r);
    return 0;
}
