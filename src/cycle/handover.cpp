#include "cycle/handover.h"

#include <string>

#include "daemon/shared.h"
#include "hardware/runner.h"

namespace zarvent {

namespace {

// 2208988800 seconds from 1900 to 1970, less one: the count of the coming
// second.
constexpr std::int64_t kNtpToUnixNext = 2208988799;
// NTP seconds count from 1900 modulo 2^32; the count rolled over on
// 2036-02-07. A board never runs before 1968, so a count below 2^31 belongs
// to the era after the rollover.
constexpr std::int64_t kEra = std::int64_t{1} << 32;

std::string handoverCommand(int reg, unsigned number)
{
    // The register tool's absolute path and the trailing newline are the
    // board's own command lines.
    return "/usr/bin/Zarvent/spiWrite -m 1 -l 3 -d 1 " + std::to_string(reg) + " " +
           std::to_string(number) + "\n";
}

} // namespace

std::optional<NtptimeReading> ControlTime(Runner &runner, SharedState &shared, std::size_t slot)
{
    const CommandLines out = runner.readLines("ntptime", 2);
    if (out.count < 2)
        return std::nullopt;
    auto reading = parseNtptimeLine(out.last);
    if (!reading)
        return std::nullopt;
    shared.put(co::kStamp, reading->stamp);
    shared.put(slot, std::string_view(reading->dateTime.c_str(), co::kTimeLength + 1));
    return reading;
}

std::int64_t Time_to_hex(std::string_view text, std::int32_t leapTime)
{
    std::int64_t ntp = 0;
    for (std::size_t i = 0; i < text.size() && i < 8; ++i) {
        const char c = text[i];
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            break;
        ntp = ntp * 16 + digit;
    }
    if (ntp < kEra / 2)
        ntp += kEra;
    return ntp - kNtpToUnixNext + leapTime;
}

void TimeHandover::Send_Time(const NtptimeReading &first)
{
    ++failed_; // until it is closed
    const std::int64_t t = Time_to_hex(first.stamp, shared_.Leap_Time.load());
    const auto count = static_cast<std::uint64_t>(t);

    // A command that cannot be started ends the hand-over; the next cycle
    // opens it again with the same number.
    if (!runner_.run(handoverCommand(10, Trans_count), PipeMode::Write))
        return;
    std::string bytes;
    for (int k = 0; k < 6; ++k) {
        bytes += ' ';
        bytes += std::to_string((count >> (8 * k)) & 0xFF);
    }
    if (!runner_.run("/usr/bin/Zarvent/spiWrite -m 1 -l 8 -d 6 3" + bytes + "\n", PipeMode::Write))
        return;

    // The second reading. When it fails, the second is not known to be
    // unchanged, so the hand-over stays open and is repeated next cycle.
    const auto second = ControlTime(runner_, shared_, co::kNow);
    if (!second || Time_to_hex(second->stamp, shared_.Leap_Time.load()) != t)
        return;

    // Advance the number, then close with the number that opened. The step
    // from 0 to 1 comes only after the close has been started, so a failed
    // close right after 255 leaves 0 for the next hand-over.
    const std::uint8_t opened = Trans_count;
    Trans_count = static_cast<std::uint8_t>(opened + 1);
    if (!runner_.run(handoverCommand(11, opened), PipeMode::Write))
        return;
    if (Trans_count == 0)
        Trans_count = 1;
    --failed_;
    ++closed_;
}

} // namespace zarvent
