// The register tool's fifth line, read as one, two and four data bytes.
#include <charconv>

#include "fuzz.h"
#include "hardware/parsers.h"

namespace {

// The tool's line: "AA AA", then each data byte as a blank and two hex
// digits, the least significant first; the newline may be missing when it is
// the last thing the tool printed.
std::optional<std::uint64_t> expected(std::string_view line, int dataBytes)
{
    if (!line.empty() && line.back() == '\n')
        line.remove_suffix(1);
    const auto n = static_cast<std::size_t>(dataBytes);
    if (line.size() != 5 + 3 * n || !line.starts_with("AA AA"))
        return std::nullopt;
    std::uint64_t value = 0;
    for (std::size_t k = 0; k < n; ++k) {
        const char *digits = line.data() + 6 + 3 * k;
        unsigned byte = 0;
        const auto [end, error] = std::from_chars(digits, digits + 2, byte, 16);
        if (line[5 + 3 * k] != ' ' || error != std::errc() || end != digits + 2)
            return std::nullopt;
        value |= std::uint64_t{byte} << (8 * k);
    }
    return value;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    using namespace zarvent;
    static constexpr int kForms[] = {1, 2, 4};
    const int dataBytes = kForms[fuzz::take(data, size) % 3];
    const fuzz::Text line(data, size);
    fuzz::require(parseRegisterLine(line.view(), dataBytes) == expected(line.view(), dataBytes));
    return 0;
}
