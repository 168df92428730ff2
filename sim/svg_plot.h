// One SVG plot of a run's report, with its axes, ticks, labels and data
// series (polylines and bands). Every data series is an element with a
// data-series attribute, which the page's check on load measures.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "text.h"

namespace zarvent::sim {

// A polyline of a whole day keeps at most this many points: the minimum and
// the maximum of each bucket, so a one-second spike still shows.
inline constexpr std::size_t kMaxPlotPoints = 2000;

// Text with the characters HTML gives a meaning escaped.
std::string escape(std::string_view text);

struct Point {
    double x;
    double y; // NaN: no value (the line breaks)
};

struct Axis {
    double lo = 0;
    double hi = 1;
    bool log = false;
    std::string label;
    std::vector<std::pair<double, std::string>> names; // named ticks instead of numbers
};

// The axis range of values, with a margin; a flat series gets a range around it.
Axis linearAxis(std::span<const Point> points, std::string label);
// Whole decades around the positive values.
Axis logAxis(std::span<const Point> points, std::string label);

// The minimum and the maximum of each of at most maxPoints / 2 buckets, in
// the order they occurred; a bucket without a value breaks the line.
std::vector<Point> envelope(std::span<const Point> points, std::size_t maxPoints = kMaxPlotPoints);

class Plot {
  public:
    Plot(std::string title, Axis x, Axis y, double height = 260)
        : title_(std::move(title)), x_(std::move(x)), y_(std::move(y)), height_(height)
    {}

    // A line through the points; a point without a value breaks it.
    void line(const char *series, const char *name, const char *colour,
              std::span<const Point> points, bool dashed = false)
    {
        std::string d;
        bool penDown = false;
        double lo = std::numeric_limits<double>::infinity();
        double hi = -lo;
        for (const Point &p : points) {
            if (!std::isfinite(p.y) || !std::isfinite(p.x)) {
                penDown = false;
                continue;
            }
            lo = std::min(lo, p.y);
            hi = std::max(hi, p.y);
            appendf(d, "%s%.1f %.1f", penDown ? " L" : (d.empty() ? "M" : " M"), px(p.x), py(p.y));
            penDown = true;
        }
        if (d.empty())
            return;
        // A series of one value is a horizontal line: drawn, though its box has no height.
        appendf(body_,
                "<path data-series=\"%s\"%s d=\"%s\" fill=\"none\" stroke=\"%s\" "
                "stroke-width=\"1.2\"%s/>\n",
                series, lo == hi ? " data-flat=\"yes\"" : "", d.c_str(), colour,
                dashed ? " stroke-dasharray=\"6 3\"" : "");
        legend_.emplace_back(name, colour);
    }

    // Filled bands from x0 to x1 between two values of y.
    void bands(const char *series, const char *name, const char *colour,
               std::span<const std::pair<double, double>> spans, double y0, double y1)
    {
        std::string d;
        for (const auto &[x0, x1] : spans) {
            const double left = px(x0);
            // At least a pixel wide, so a single second shows on a day's plot.
            const double right = std::max(px(x1), left + 1);
            appendf(d, "%sM%.1f %.1f H%.1f V%.1f H%.1f Z", d.empty() ? "" : " ", left, py(y1),
                    right, py(y0), left);
        }
        if (d.empty())
            return;
        appendf(body_, "<path data-series=\"%s\" d=\"%s\" fill=\"%s\" fill-opacity=\"0.75\"/>\n",
                series, d.c_str(), colour);
        legend_.emplace_back(name, colour);
    }

    std::string svg() const
    {
        std::string out;
        appendf(out,
                "<svg class=\"plot\" viewBox=\"0 0 %.0f %.0f\" role=\"img\" aria-label=\"%s\">\n",
                kWidth, height_, escape(title_).c_str());
        appendf(out, "<text x=\"%.0f\" y=\"18\"><tspan font-weight=\"bold\">%s</tspan>", kLeft,
                escape(title_).c_str());
        for (const auto &[name, colour] : legend_)
            appendf(out, "<tspan dx=\"14\" fill=\"%s\">&#9632;</tspan><tspan dx=\"4\">%s</tspan>",
                    colour.c_str(), escape(name).c_str());
        out += "</text>\n";
        appendf(out,
                "<rect class=\"frame\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"/>\n",
                kLeft, kTop, kWidth - kLeft - kRight, height_ - kTop - kBottom);
        for (const auto &[value, label] : ticks(x_)) {
            const double x = px(value);
            appendf(out,
                    "<line class=\"grid\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>"
                    "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%s</text>\n",
                    x, kTop, x, height_ - kBottom + 4, x, height_ - kBottom + 18,
                    escape(label).c_str());
        }
        for (const auto &[value, label] : ticks(y_)) {
            const double y = py(value);
            appendf(out,
                    "<line class=\"grid\" x1=\"%.1f\" y1=\"%.1f\" x2=\"%.1f\" y2=\"%.1f\"/>"
                    "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\">%s</text>\n",
                    kLeft - 4, y, kWidth - kRight, y, kLeft - 7, y + 4, escape(label).c_str());
        }
        appendf(out, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%s</text>\n",
                (kLeft + kWidth - kRight) / 2, height_ - 8, escape(x_.label).c_str());
        const double middle = (kTop + height_ - kBottom) / 2;
        appendf(out,
                "<text x=\"14\" y=\"%.1f\" text-anchor=\"middle\" transform=\"rotate(-90 14 "
                "%.1f)\">%s</text>\n",
                middle, middle, escape(y_.label).c_str());
        out += body_;
        out += "</svg>\n";
        return out;
    }

  private:
    static constexpr double kWidth = 900;
    static constexpr double kLeft = 104;
    static constexpr double kRight = 30;
    static constexpr double kTop = 30;
    static constexpr double kBottom = 46;

    // Where a value lies along an axis, 0 to 1; values outside (or, on a
    // log axis, not positive) are drawn at the edge.
    static double fraction(const Axis &axis, double v)
    {
        double f = 0;
        if (axis.log) {
            const double lo = std::log10(axis.lo);
            f = v > 0 ? (std::log10(v) - lo) / (std::log10(axis.hi) - lo) : 0;
        } else {
            f = (v - axis.lo) / (axis.hi - axis.lo);
        }
        return std::clamp(f, 0.0, 1.0);
    }
    double px(double x) const
    {
        return kLeft + fraction(x_, x) * (kWidth - kLeft - kRight);
    }
    double py(double y) const
    {
        return kTop + (1 - fraction(y_, y)) * (height_ - kTop - kBottom);
    }

    // Decades on a log axis; steps of 1, 2 or 5 times a power of ten on a
    // linear one, about six of them.
    static std::vector<std::pair<double, std::string>> ticks(const Axis &axis)
    {
        if (!axis.names.empty())
            return axis.names;
        std::vector<std::pair<double, std::string>> out;
        if (axis.log) {
            const auto first = static_cast<int>(std::floor(std::log10(axis.lo)));
            const auto last = static_cast<int>(std::ceil(std::log10(axis.hi)));
            for (int k = first; k <= last; k++) {
                const double v = std::pow(10.0, k);
                if (v >= axis.lo * 0.999 && v <= axis.hi * 1.001)
                    out.emplace_back(v, format("%g", v));
            }
            return out;
        }
        const double raw = (axis.hi - axis.lo) / 6;
        if (!(raw > 0) || !std::isfinite(raw))
            return out;
        const double magnitude = std::pow(10.0, std::floor(std::log10(raw)));
        const double r = raw / magnitude;
        const double step = (r < 1.5 ? 1 : r < 3.5 ? 2 : r < 7.5 ? 5 : 10) * magnitude;
        const int decimals = step >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(step) - 1e-9));
        const auto first = static_cast<std::int64_t>(std::ceil(axis.lo / step));
        const auto last = static_cast<std::int64_t>(std::floor(axis.hi / step));
        for (std::int64_t k = first; k <= last; k++) {
            const double v = static_cast<double>(k) * step;
            out.emplace_back(v, format("%.*f", decimals, v == 0 ? 0.0 : v));
        }
        return out;
    }

    std::string title_;
    Axis x_;
    Axis y_;
    double height_;
    std::string body_;
    std::vector<std::pair<std::string, std::string>> legend_;
};

} // namespace zarvent::sim
