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
std::optional<std::uint64_t> parseRegisterLine(std::string_view line, int dataBytes);

// The second line of ntptime's output as the classic tool prints it:
//   "  time eea58352.1f2e3d4c  Mon, Nov 16 2026 13:27:46.121, (.121751),"
struct NtptimeReading {
    std::string stamp;            // columns 7-24: hex seconds, point, hex fraction, blank
    std::string dateTime;         // columns 31-54: "Nov 16 2026 13:27:46.121"
    std::uint32_t ntpSeconds = 0; // the seconds since 1900 (modulo 2^32)
};
std::optional<NtptimeReading> parseNtptimeLine(std::string_view line);

// The third line of "ntpq -c clockvar" with the NMEA reference clock: the
// receiver's RMC sentence in the timecode variable, whose status letter sits at
// column 27 ("A" valid data) when the receiver prints its time as hhmmss.ss.
bool rmcStatusValid(std::string_view thirdLine);

// A decimal integer at the start of text as "%d" reads it (leading blanks, an
// optional sign, digits); nothing when there is none or it does not fit 32 bits.
std::optional<std::int32_t> parseDecimal(std::string_view text);

// An integer as "%i" reads it: leading blanks, an optional sign, then decimal,
// 0x hexadecimal or 0 octal digits; nothing when there is none or it does not
// fit 32 bits.
std::optional<std::int32_t> parseInteger(std::string_view text);

} // namespace zarvent
