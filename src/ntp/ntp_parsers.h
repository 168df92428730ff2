// What ntpd's tools print, read: the second line of ntptime, the receiver's
// sentence in "ntpq -c clockvar", and the peers of "ntpq -p". Each parser is a
// pure function of the text: it gives a value only when the text has the
// documented form, and never looks beyond the text it is given.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zarvent {

// The second line of ntptime's output as the classic tool prints it:
//   "  time eea58352.1f2e3d4c  Mon, Nov 16 2026 13:27:46.121, (.121751),"
struct NtptimeReading {
    std::string stamp;            // columns 7-24: hex seconds, point, hex fraction, blank
    std::string dateTime;         // columns 31-54: "Nov 16 2026 13:27:46.121"
    std::uint32_t ntpSeconds = 0; // the seconds since 1900 (modulo 2^32)
};
[[nodiscard]] std::optional<NtptimeReading> parseNtptimeLine(std::string_view line);

// The return code of ntptime's first line, "ntp_gettime() returns code 0 (OK)":
// 0 to 4 while the kernel clock is synchronised (4 a leap second's wait), 5
// (ERROR) while it is not.
[[nodiscard]] std::optional<int> parseNtptimeCode(std::string_view firstLine);
inline constexpr int kClockUnsynchronised = 5;

// The kernel's TAI offset at the end of ntptime's third line,
// "  maximum error 16000 us, estimated error 16 us, TAI offset 37". The error
// figures before it have no fixed width, so the offset is found after its
// label at the end of the line.
[[nodiscard]] std::optional<std::int32_t> parseNtptimeTaiOffset(std::string_view thirdLine);

// The third line of "ntpq -c clockvar" with the NMEA reference clock: the
// receiver's RMC sentence in the timecode variable, whose status letter sits at
// column 27 ("A" valid data) when the receiver prints its time as hhmmss.ss.
bool rmcStatusValid(std::string_view thirdLine);

} // namespace zarvent
