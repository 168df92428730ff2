// The third line of "ntpq -c clockvar": any text, and the lines ntpd prints
// for the NMEA reference clock.
#include "fuzz.h"
#include "hardware/parsers.h"
#include "ntp/ntp_parsers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace zarvent;
    const std::uint8_t mode = fuzz::take(data, size);
    if (mode % 2 == 0) {
        // Valid only for the timecode variable with an RMC sentence and the
        // status letter A where a receiver printing hhmmss.ss puts it.
        const fuzz::Text text(data, size);
        const std::string_view l = text.view();
        fuzz::require(!rmcStatusValid(l) || (l.size() > 27 && l.starts_with("timecode=\"$") &&
                                             l.substr(13, 4) == "RMC," && l[27] == 'A'));
        return 0;
    }
    // A sentence as a receiver sends it, its fields from the input: valid
    // exactly when the status is A and the time has two decimals.
    static constexpr const char *kTalkers[] = {"GP", "GN", "GL"};
    static constexpr const char *kDecimals[] = {"", ".0", ".00", ".000"};
    static constexpr const char *kRests[] = {",5540.1234,N,03736.5678,E,0.00,0.00,161126,,,A*6C\",",
                                             ",,,,,,,161126,,,N*50\","};
    const unsigned decimals = mode / 2 % 4;
    const char status = mode / 8 % 2 == 0 ? 'A' : 'V';
    std::string line = std::string("timecode=\"$") + kTalkers[mode / 16 % 3] + "RMC,";
    for (int i = 0; i < 6; ++i)
        line += static_cast<char>('0' + fuzz::take(data, size) % 10);
    line = line + kDecimals[decimals] + ',' + status + kRests[mode / 64 % 2];
    const fuzz::Text text(line.data(), line.size());
    fuzz::require(rmcStatusValid(text.view()) == (status == 'A' && decimals == 2));
    return 0;
}
