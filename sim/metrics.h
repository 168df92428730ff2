// Timing metrics of a time-error series, as timing engineers judge a clock:
// MTIE and TDEV against the observation interval, and the PRTC-A limits of a
// primary reference time clock (ITU-T G.8272) they are compared with.
//
// A series is the time error x[i] in ns of the clock's 1PPS, sampled once per
// board second (tau0 = 1 s), so an observation interval of n samples is
// n seconds.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

namespace zarvent::sim {

// A PRTC-A clock keeps its time error within 100 ns of the reference.
inline constexpr double kTimeErrorLimitNs = 100.0;

// The largest peak-to-peak time error within any window of n + 1 consecutive
// samples (observation interval n s). None when the series has no such window.
std::optional<double> mtie(std::span<const double> x, std::size_t n);

// The time deviation at n s (ITU-T G.810), from N samples:
//   TDEV(n)^2 = 1 / (6 n^2 (N - 3n + 1)) * sum over j = 0 .. N - 3n of
//               [ sum over i = j .. j + n - 1 of (x[i + 2n] - 2 x[i + n] + x[i]) ]^2
// Defined for 1 <= n and 3n <= N.
std::optional<double> tdev(std::span<const double> x, std::size_t n);

// Observation intervals from 1 to max (included), about ten per decade,
// integers in ascending order without repeats.
std::vector<std::size_t> observationIntervals(std::size_t max);

// The PRTC-A masks in ns at an observation interval in s; none where the
// mask says nothing (a point there is not judged).
std::optional<double> mtieMaskNs(double tauS);
std::optional<double> tdevMaskNs(double tauS);

// One observation interval of a series.
struct MetricPoint {
    std::size_t n = 0; // samples, = tau in s
    std::optional<double> mtieNs;
    std::optional<double> mtieMaskNs;
    std::optional<double> tdevNs;
    std::optional<double> tdevMaskNs;
};

// How a metric compares with its mask: it fails when any judged point lies
// above the mask. The worst point is the one with the largest ratio.
struct MaskVerdict {
    std::size_t judged = 0; // points with both a value and a mask
    bool pass = true;
    double worstTauS = 0;
    double worstRatio = 0; // value / mask at the worst point
};

struct MetricsSummary {
    std::size_t samples = 0;
    double maxAbsTeNs = 0;
    bool timeErrorPass = true;       // max |TE| within kTimeErrorLimitNs
    std::vector<MetricPoint> points; // MTIE up to N - 1 s, TDEV up to N / 3 s
    MaskVerdict mtie;
    MaskVerdict tdev;
};

MetricsSummary summarize(std::span<const double> x);

// Seconds from the start of a stretch until |x| stays within limitNs for the
// rest of it; none when the stretch ends outside the limit (or is empty).
std::optional<std::size_t> settlingSeconds(std::span<const double> stretch,
                                           double limitNs = kTimeErrorLimitNs);

} // namespace zarvent::sim
