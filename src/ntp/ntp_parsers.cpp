#include "ntp/ntp_parsers.h"

#include <array>

#include "hardware/parsers.h"

namespace zarvent {

namespace {

bool isDecimal(char c)
{
    return c >= '0' && c <= '9';
}

bool oneOf(std::string_view word, const std::array<std::string_view, 12> &names, std::size_t count)
{
    for (std::size_t i = 0; i < count; ++i)
        if (word == names[i])
            return true;
    return false;
}

// A "%2d" field: a space-padded or two-digit number within [low, high].
bool paddedNumber(std::string_view field, int low, int high)
{
    if (field.size() != 2 || !isDecimal(field[1]) || !(field[0] == ' ' || isDecimal(field[0])))
        return false;
    const int value = (field[0] == ' ' ? 0 : (field[0] - '0') * 10) + (field[1] - '0');
    return value >= low && value <= high;
}

bool digits(std::string_view field)
{
    for (char c : field)
        if (!isDecimal(c))
            return false;
    return !field.empty();
}

} // namespace

std::optional<NtptimeReading> parseNtptimeLine(std::string_view line)
{
    static constexpr std::array<std::string_view, 12> kWeekdays = {"Sun", "Mon", "Tue", "Wed",
                                                                   "Thu", "Fri", "Sat"};
    static constexpr std::array<std::string_view, 12> kMonths = {
        "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (line.size() < 56 || line.substr(0, 7) != "  time " || line[15] != '.' ||
        line.substr(24, 2) != "  " || line[29] != ',' || line[30] != ' ' || line[55] != ',')
        return std::nullopt;
    for (std::size_t i = 7; i < 24; ++i)
        if (i != 15 && !hexDigit(line[i]))
            return std::nullopt;
    const std::string_view when = line.substr(31, 24); // "Nov 16 2026 13:27:46.121"
    if (!oneOf(line.substr(26, 3), kWeekdays, 7) || !oneOf(when.substr(0, 3), kMonths, 12) ||
        when[3] != ' ' || !paddedNumber(when.substr(4, 2), 1, 31) || when[6] != ' ' ||
        !digits(when.substr(7, 4)) || when[11] != ' ' || !paddedNumber(when.substr(12, 2), 0, 23) ||
        when[14] != ':' || !paddedNumber(when.substr(15, 2), 0, 59) || when[15] == ' ' ||
        when[17] != ':' || !paddedNumber(when.substr(18, 2), 0, 60) || when[18] == ' ' ||
        when[20] != '.' || !digits(when.substr(21, 3)))
        return std::nullopt;
    NtptimeReading reading;
    reading.stamp = std::string(line.substr(7, 18));
    reading.dateTime = std::string(when);
    for (std::size_t i = 7; i < 15; ++i)
        reading.ntpSeconds = reading.ntpSeconds * 16 + *hexDigit(line[i]);
    return reading;
}

std::optional<int> parseNtptimeCode(std::string_view firstLine)
{
    // "ntp_gettime() returns code " is 27 characters; one digit, a blank
    // and the code's name in parentheses follow.
    static constexpr std::string_view kLead = "ntp_gettime() returns code ";
    if (firstLine.size() < kLead.size() + 3 || !firstLine.starts_with(kLead))
        return std::nullopt;
    const char digit = firstLine[kLead.size()];
    if (!isDecimal(digit) || firstLine[kLead.size() + 1] != ' ' ||
        firstLine[kLead.size() + 2] != '(')
        return std::nullopt;
    return digit - '0';
}

std::optional<std::int32_t> parseNtptimeTaiOffset(std::string_view thirdLine)
{
    static constexpr std::string_view kLead = "  maximum error ";
    static constexpr std::string_view kLabel = ", TAI offset ";
    if (!thirdLine.starts_with(kLead))
        return std::nullopt;
    if (thirdLine.ends_with('\n'))
        thirdLine.remove_suffix(1);
    const std::size_t at = thirdLine.rfind(kLabel);
    if (at == std::string_view::npos)
        return std::nullopt;
    std::string_view number = thirdLine.substr(at + kLabel.size());
    // The whole rest of the line is the number: an optional sign and digits.
    const std::string_view digitsOnly = number.substr(number.starts_with('-') ? 1 : 0);
    if (!digits(digitsOnly) || digitsOnly.size() > 9)
        return std::nullopt;
    return parseDecimal(number);
}

bool rmcStatusValid(std::string_view thirdLine)
{
    // timecode="$GPRMC,132746.00,A,...: the talker (GP, GN, GL) in columns
    // 11-12, the status field alone between the commas at 26 and 28.
    return thirdLine.size() > 28 && thirdLine.substr(0, 11) == "timecode=\"$" &&
           thirdLine.substr(13, 4) == "RMC," && thirdLine[26] == ',' && thirdLine[27] == 'A' &&
           thirdLine[28] == ',';
}

} // namespace zarvent
