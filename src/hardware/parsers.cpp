#include "hardware/parsers.h"

#include <climits>
#include <limits>

namespace zarvent {

std::optional<unsigned> hexDigit(char c)
{
    if (c >= '0' && c <= '9')
        return static_cast<unsigned>(c - '0');
    if (c >= 'A' && c <= 'F')
        return static_cast<unsigned>(c - 'A' + 10);
    if (c >= 'a' && c <= 'f')
        return static_cast<unsigned>(c - 'a' + 10);
    return std::nullopt;
}

std::int32_t saturateToInt32(double value)
{
    if (value >= 2147483648.0)
        return INT32_MAX;
    if (value <= -2147483649.0)
        return INT32_MIN;
    if (value != value)
        return 0;
    return static_cast<std::int32_t>(value);
}

namespace {

bool isHex(char c)
{
    return hexDigit(c).has_value();
}

unsigned hexValue(char c)
{
    return hexDigit(c).value_or(0);
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
