#include "cycle/handover.h"

#include "hardware/board_map.h"
#include "hardware/parsers.h"
#include "hardware/registers.h"
#include "ntp/ntp_queries.h"
#include "state/shared_state.h"

namespace zarvent {

namespace {

// 2208988800 seconds from 1900 to 1970, less one: the count of the coming
// second.
constexpr std::int64_t kNtpToUnixNext = 2208988799;
// NTP seconds count from 1900 modulo 2^32; the count rolled over on
// 2036-02-07. A board never runs before 1968, so a count below 2^31 belongs
// to the era after the rollover.
constexpr std::int64_t kEra = std::int64_t{1} << 32;

} // namespace

std::int64_t taiCountOfNextSecond(std::string_view stamp, std::int32_t taiOffset)
{
    std::int64_t ntp = 0;
    for (std::size_t i = 0; i < stamp.size() && i < 8; ++i) {
        const auto digit = hexDigit(stamp[i]);
        if (!digit)
            break;
        ntp = ntp * 16 + *digit;
    }
    if (ntp < kEra / 2)
        ntp += kEra;
    return ntp - kNtpToUnixNext + taiOffset;
}

std::optional<NtptimeReading> TimeHandover::handOver(const NtptimeReading &first)
{
    ++failed_; // until it is closed
    const std::int64_t count = taiCountOfNextSecond(first.stamp, shared_.taiOffset.load());

    // A command that cannot be started ends the hand-over; the next cycle
    // opens it again with the same number.
    if (!registers_.writeHandover(fpga::kHandoverOpen, number_))
        return std::nullopt;
    if (!registers_.writeCount(static_cast<std::uint64_t>(count)))
        return std::nullopt;

    // The second reading. When it fails, the second is not known to be
    // unchanged, so the hand-over stays open and is repeated next cycle.
    auto second = readNtptime(runner_);
    if (!second || taiCountOfNextSecond(second->stamp, shared_.taiOffset.load()) != count)
        return second;

    // Advance the number, then close with the number that opened. The step
    // from 0 to 1 comes only after the close has been started, so a failed
    // close right after 255 leaves 0 for the next hand-over.
    const std::uint8_t opened = number_;
    number_ = static_cast<std::uint8_t>(opened + 1);
    if (!registers_.writeHandover(fpga::kHandoverClose, opened))
        return second;
    if (number_ == 0)
        number_ = 1;
    --failed_;
    ++closed_;
    return second;
}

} // namespace zarvent
