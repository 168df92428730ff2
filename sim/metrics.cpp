#include "metrics.h"

#include <algorithm>
#include <cmath>

namespace zarvent::sim {

namespace {

void judge(MaskVerdict &verdict, double tauS, const std::optional<double> &value,
           const std::optional<double> &mask)
{
    if (!value || !mask)
        return;
    verdict.judged++;
    if (*value > *mask)
        verdict.pass = false;
    const double ratio = *value / *mask;
    if (verdict.judged == 1 || ratio > verdict.worstRatio) {
        verdict.worstRatio = ratio;
        verdict.worstTauS = tauS;
    }
}

} // namespace

std::optional<double> mtie(std::span<const double> x, std::size_t n)
{
    if (n == 0 || n >= x.size())
        return std::nullopt;
    // Monotonic queues of the window's maximum and minimum candidates (indices,
    // oldest first): each index enters and leaves each queue once, so one pass
    // is O(N). Plain arrays, as this runs for every interval over a day.
    std::vector<std::size_t> storage(2 * x.size());
    std::size_t *const highs = storage.data();
    std::size_t *const lows = highs + x.size();
    std::size_t highHead = 0, highEnd = 0, lowHead = 0, lowEnd = 0;
    const double *const v = x.data();
    double worst = 0;
    for (std::size_t i = 0; i < x.size(); i++) {
        while (highEnd > highHead && v[highs[highEnd - 1]] <= v[i])
            highEnd--;
        highs[highEnd++] = i;
        while (lowEnd > lowHead && v[lows[lowEnd - 1]] >= v[i])
            lowEnd--;
        lows[lowEnd++] = i;
        if (i < n)
            continue;
        // The window is x[i - n] .. x[i]: n + 1 samples.
        if (highs[highHead] < i - n)
            highHead++;
        if (lows[lowHead] < i - n)
            lowHead++;
        worst = std::max(worst, v[highs[highHead]] - v[lows[lowHead]]);
    }
    return worst;
}

std::optional<double> tdev(std::span<const double> x, std::size_t n)
{
    const std::size_t count = x.size();
    if (n == 0 || n > count / 3)
        return std::nullopt;
    // The inner sum over i = j .. j + n - 1 of the second difference is
    // S[j + 3n] - 3 S[j + 2n] + 3 S[j + n] - S[j] with S the prefix sums of x.
    // The sums are taken of x - x[0]: TDEV does not see a constant offset, and
    // a clock's offset of microseconds would otherwise cost digits over a day.
    std::vector<double> prefix(count + 1, 0.0);
    for (std::size_t i = 0; i < count; i++)
        prefix[i + 1] = prefix[i] + (x[i] - x[0]);
    const std::size_t terms = count - 3 * n + 1;
    double total = 0;
    for (std::size_t j = 0; j < terms; j++) {
        const double inner =
            prefix[j + 3 * n] - 3 * prefix[j + 2 * n] + 3 * prefix[j + n] - prefix[j];
        total += inner * inner;
    }
    const auto nD = static_cast<double>(n);
    return std::sqrt(total / (6 * nD * nD * static_cast<double>(terms)));
}

std::vector<std::size_t> observationIntervals(std::size_t max)
{
    std::vector<std::size_t> out;
    for (int step = 0;; step++) {
        const auto n = static_cast<std::size_t>(std::llround(std::pow(10.0, step / 10.0)));
        if (n >= max)
            break;
        if (out.empty() || out.back() != n)
            out.push_back(n);
    }
    // The longest interval the series allows is always shown.
    if (max > 0)
        out.push_back(max);
    return out;
}

// ITU-T G.8272, PRTC-A: MTIE 0.275e-3 tau + 0.025 us for 0.275 s < tau <= 273 s,
// 0.100 us above.
std::optional<double> mtieMaskNs(double tauS)
{
    if (!(tauS > 0.275))
        return std::nullopt;
    if (tauS <= 273)
        return 0.275 * tauS + 25;
    return 100.0;
}

// ITU-T G.8272, PRTC-A: TDEV 3 ns up to 100 s, 0.03 tau ns up to 1000 s, 30 ns
// up to 10000 s; nothing beyond.
std::optional<double> tdevMaskNs(double tauS)
{
    if (!(tauS > 0.1) || tauS > 10000)
        return std::nullopt;
    if (tauS <= 100)
        return 3.0;
    if (tauS <= 1000)
        return 0.03 * tauS;
    return 30.0;
}

MetricsSummary summarize(std::span<const double> x)
{
    MetricsSummary out;
    out.samples = x.size();
    for (const double v : x)
        out.maxAbsTeNs = std::max(out.maxAbsTeNs, std::abs(v));
    out.timeErrorPass = out.maxAbsTeNs <= kTimeErrorLimitNs;
    if (x.size() < 2)
        return out;

    std::vector<std::size_t> intervals = observationIntervals(x.size() - 1);
    const std::vector<std::size_t> tdevIntervals = observationIntervals(x.size() / 3);
    intervals.insert(intervals.end(), tdevIntervals.begin(), tdevIntervals.end());
    std::sort(intervals.begin(), intervals.end());
    intervals.erase(std::unique(intervals.begin(), intervals.end()), intervals.end());

    for (const std::size_t n : intervals) {
        const auto tau = static_cast<double>(n);
        MetricPoint p;
        p.n = n;
        p.mtieNs = mtie(x, n);
        p.mtieMaskNs = mtieMaskNs(tau);
        p.tdevNs = tdev(x, n);
        p.tdevMaskNs = tdevMaskNs(tau);
        judge(out.mtie, tau, p.mtieNs, p.mtieMaskNs);
        judge(out.tdev, tau, p.tdevNs, p.tdevMaskNs);
        out.points.push_back(p);
    }
    return out;
}

std::optional<std::size_t> settlingSeconds(std::span<const double> stretch, double limitNs)
{
    std::size_t from = stretch.size();
    while (from > 0 && std::abs(stretch[from - 1]) <= limitNs)
        from--;
    if (from == stretch.size())
        return std::nullopt;
    return from;
}

} // namespace zarvent::sim
