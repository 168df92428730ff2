#include "hardware/parsers.h"

#include <array>
#include <limits>

namespace zarvent {

namespace {

bool isHex(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

unsigned hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'A' && c <= 'F')
        return static_cast<unsigned>(c - 'A' + 10);
    return static_cast<unsigned>(c - 'a' + 10);
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// The value of digits in a base, when every character is one of its digits
// and the magnitude, with the sign, fits 32 bits.
std::optional<std::int32_t> signedValue(std::string_view digits, unsigned base, bool negative)
{
    constexpr std::int64_t kLimit = std::int64_t{std::numeric_limits<std::int32_t>::max()} + 1;
    std::int64_t magnitude = 0;
    for (char c : digits) {
        magnitude = magnitude * base + hexValue(c);
        if (magnitude > kLimit)
            return std::nullopt;
    }
    if (!negative && magnitude == kLimit)
        return std::nullopt;
    return static_cast<std::int32_t>(negative ? -magnitude : magnitude);
}

// Text without leading blanks, and whether a sign said negative.
std::string_view skipBlanksAndSign(std::string_view text, bool &negative)
{
    while (!text.empty() && isBlank(text.front()))
        text.remove_prefix(1);
    negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    return text;
}

template <typename Pred> std::string_view leading(std::string_view text, Pred pred)
{
    std::size_t n = 0;
    while (n < text.size() && pred(text[n]))
        ++n;
    return text.substr(0, n);
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
    if (field.size() != 2 || !isDigit(field[1]) || !(field[0] == ' ' || isDigit(field[0])))
        return false;
    const int value = (field[0] == ' ' ? 0 : (field[0] - '0') * 10) + (field[1] - '0');
    return value >= low && value <= high;
}

bool digits(std::string_view field)
{
    for (char c : field)
        if (!isDigit(c))
            return false;
    return !field.empty();
}

} // namespace

std::optional<std::uint64_t> parseRegisterLine(std::string_view line, int dataBytes)
{
    if (dataBytes < 1 || dataBytes > 8)
        return std::nullopt;
    if (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    const std::size_t pairs = 2 + static_cast<std::size_t>(dataBytes);
    if (line.size() != pairs * 3 - 1)
        return std::nullopt;
    // "AA AA" is the FPGA's answer to the command bytes: without it the data
    // bytes are not the register's (an unconfigured FPGA answers "FF FF", a
    // disturbed transfer anything), and such a value must never be written
    // back to a register.
    if (!line.starts_with("AA AA "))
        return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t k = 0; k < pairs; ++k) {
        const std::size_t at = k * 3;
        if (!isHex(line[at]) || !isHex(line[at + 1]) || (k > 0 && line[at - 1] != ' '))
            return std::nullopt;
        if (k >= 2)
            value |= std::uint64_t{hexValue(line[at]) * 16 + hexValue(line[at + 1])}
                     << (8 * (k - 2));
    }
    return value;
}

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
        if (i != 15 && !isHex(line[i]))
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
        reading.ntpSeconds = reading.ntpSeconds * 16 + hexValue(line[i]);
    return reading;
}

bool rmcStatusValid(std::string_view thirdLine)
{
    // timecode="$GPRMC,132746.00,A,...: the talker (GP, GN, GL) in columns
    // 11-12, the status field alone between the commas at 26 and 28.
    return thirdLine.size() > 28 && thirdLine.substr(0, 11) == "timecode=\"$" &&
           thirdLine.substr(13, 4) == "RMC," && thirdLine[26] == ',' && thirdLine[27] == 'A' &&
           thirdLine[28] == ',';
}

std::optional<std::int32_t> parseDecimal(std::string_view text)
{
    bool negative = false;
    text = skipBlanksAndSign(text, negative);
    const std::string_view number = leading(text, isDigit);
    if (number.empty())
        return std::nullopt;
    return signedValue(number, 10, negative);
}

std::optional<std::int32_t> parseInteger(std::string_view text)
{
    bool negative = false;
    text = skipBlanksAndSign(text, negative);
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') && isHex(text[2]))
        return signedValue(leading(text.substr(2), isHex), 16, negative);
    if (!text.empty() && text[0] == '0')
        return signedValue(leading(text, [](char c) { return c >= '0' && c <= '7'; }), 8, negative);
    const std::string_view number = leading(text, isDigit);
    if (number.empty())
        return std::nullopt;
    return signedValue(number, 10, negative);
}

} // namespace zarvent
