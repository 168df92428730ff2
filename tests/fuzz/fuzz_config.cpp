// The configuration files the daemon reads for a number: enable.cfg and
// nmea_emul_flag.txt (their first byte), dac_voltage (its first 64 bytes),
// through the daemon's own file helper from a file that arrives in pieces.
#include "platform/files.h"
#include "fuzz.h"
#include "hardware/parsers.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace zarvent;
    using fuzz::require;
    const std::uint8_t mode = fuzz::take(data, size);
    const std::size_t maxBytes = mode % 3 == 0 ? 1 : mode % 3 == 1 ? 64 : size + 1;
    fuzz::FakePlatform platform;
    platform.pieces = {1 + std::size_t{fuzz::take(data, size)}};
    const fuzz::Text content(data, size);
    platform.files["/usr/bin/Zarvent/dac_voltage"] = std::string(content.view());

    const auto text = readFileStart(platform, "/usr/bin/Zarvent/dac_voltage", maxBytes);
    require(text && *text == content.view().substr(0, maxBytes) && platform.openFds() == 0);
    require(!readFileStart(platform, "/usr/bin/Zarvent/enable.cfg", maxBytes));
    require(parseDecimal(*text) == fuzz::strtolValue(*text, 10));
    require(parseInteger(*text) == fuzz::strtolValue(*text, 0));
    return 0;
}
