#include "svg_plot.h"

#include <optional>

namespace zarvent::sim {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

} // namespace

std::string escape(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

Axis linearAxis(std::span<const Point> points, std::string label)
{
    double lo = std::numeric_limits<double>::infinity();
    double hi = -lo;
    for (const Point &p : points)
        if (std::isfinite(p.y)) {
            lo = std::min(lo, p.y);
            hi = std::max(hi, p.y);
        }
    if (!(lo <= hi))
        return Axis{0, 1, false, std::move(label), {}};
    const double margin = hi > lo ? (hi - lo) * 0.05 : std::max(1.0, std::abs(lo) * 0.05);
    return Axis{lo - margin, hi + margin, false, std::move(label), {}};
}

Axis logAxis(std::span<const Point> points, std::string label)
{
    double lo = std::numeric_limits<double>::infinity();
    double hi = 0;
    for (const Point &p : points)
        if (std::isfinite(p.y) && p.y > 0) {
            lo = std::min(lo, p.y);
            hi = std::max(hi, p.y);
        }
    if (!(lo <= hi))
        return Axis{1, 10, true, std::move(label), {}};
    // A value on a decade (the 100 ns of a mask) gets the next decade above
    // it, so that it does not run along the frame.
    lo = std::pow(10.0, std::floor(std::log10(lo)));
    hi = std::pow(10.0, std::ceil(std::log10(hi * 1.01)));
    if (hi <= lo)
        hi = lo * 10;
    return Axis{lo, hi, true, std::move(label), {}};
}

std::vector<Point> envelope(std::span<const Point> points, std::size_t maxPoints)
{
    if (points.size() <= maxPoints)
        return {points.begin(), points.end()};
    const std::size_t buckets = maxPoints / 2;
    std::vector<Point> out;
    out.reserve(maxPoints);
    for (std::size_t b = 0; b < buckets; b++) {
        // In 64 bits: weeks of seconds times the buckets overflow a 32-bit size_t.
        const auto begin = static_cast<std::size_t>(std::uint64_t{b} * points.size() / buckets);
        const auto end = static_cast<std::size_t>(std::uint64_t{b + 1} * points.size() / buckets);
        std::optional<std::size_t> low;
        std::optional<std::size_t> high;
        for (std::size_t i = begin; i < end; i++) {
            if (!std::isfinite(points[i].y))
                continue;
            if (!low || points[i].y < points[*low].y)
                low = i;
            if (!high || points[i].y > points[*high].y)
                high = i;
        }
        if (!low) {
            out.push_back({points[begin].x, kNaN});
            continue;
        }
        const std::size_t first = std::min(*low, *high);
        const std::size_t second = std::max(*low, *high);
        out.push_back(points[first]);
        if (second != first)
            out.push_back(points[second]);
    }
    return out;
}

} // namespace zarvent::sim
