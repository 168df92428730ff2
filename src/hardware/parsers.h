// Parsers of what outside programs print and what configuration files hold.
// Each is a pure function of the text: it gives a value only when the text has
// the documented form, and never looks beyond the text it is given.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zarvent {

// The register tool's fifth output line: the bytes received during the SPI
// transfer, "AA AA" and then dataBytes data bytes, each two hexadecimal digits
// after one blank, ended by the line's newline (for example "AA AA 34 12\n").
// The value of the data bytes, the first printed the least significant.
[[nodiscard]] std::optional<std::uint64_t> parseRegisterLine(std::string_view line, int dataBytes);

// A decimal integer at the start of text as "%d" reads it (leading blanks, an
// optional sign, digits); nothing when there is none or it does not fit 32 bits.
[[nodiscard]] std::optional<std::int32_t> parseDecimal(std::string_view text);

// An integer as "%i" reads it: leading blanks, an optional sign, then decimal,
// 0x hexadecimal or 0 octal digits; nothing when there is none or it does not
// fit 32 bits.
[[nodiscard]] std::optional<std::int32_t> parseInteger(std::string_view text);

// The value of a hexadecimal digit (either case), or nothing for any other
// character.
[[nodiscard]] std::optional<unsigned> hexDigit(char c);

// A double truncated toward zero, saturated at the 32-bit limits; 0 for NaN.
std::int32_t saturateToInt32(double value);

} // namespace zarvent
