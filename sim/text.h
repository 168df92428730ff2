// Text functions of the simulator: printf-style appends (the tool models and the
// logs print the exact formats of the programs and tools they stand for) and
// word splitting as a shell or a scenario file splits.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace zarvent::sim {

[[gnu::format(printf, 2, 3)]] inline void appendf(std::string &out, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length > 0) {
        const std::size_t old = out.size();
        const auto size = static_cast<std::size_t>(length);
        out.resize(old + size + 1);
        (void)std::vsnprintf(out.data() + old, size + 1, format, args);
        out.resize(old + size);
    }
    va_end(args);
}

[[gnu::format(printf, 1, 2)]] inline std::string format(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    std::string out;
    if (length > 0) {
        const auto size = static_cast<std::size_t>(length);
        out.resize(size + 1);
        (void)std::vsnprintf(out.data(), size + 1, format, args);
        out.resize(size);
    }
    va_end(args);
    return out;
}

// The words of text between any of the separators, at most max of them.
inline std::vector<std::string> splitWords(std::string_view text, std::string_view separators,
                                           std::size_t max = 32)
{
    std::vector<std::string> words;
    std::size_t pos = text.find_first_not_of(separators);
    while (pos != std::string_view::npos && words.size() < max) {
        const std::size_t end = text.find_first_of(separators, pos);
        words.emplace_back(text.substr(pos, end == std::string_view::npos ? end : end - pos));
        pos = end == std::string_view::npos ? end : text.find_first_not_of(separators, end);
    }
    return words;
}

} // namespace zarvent::sim
