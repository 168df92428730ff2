#include "report.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <span>
#include <string_view>
#include <utility>

#include "metrics.h"
#include "svg_plot.h"
#include "text.h"

namespace zarvent::sim {

namespace {

// The steering loop pulls a fresh phase error in over its first minutes (a
// cold start's microseconds take the oven oscillator's loop about half an
// hour); the metrics judge how the daemon holds the time once it has, so they
// leave out the first hour of the steered stretch. How long the pull-in takes
// is the settling table's business.
constexpr std::size_t kLoopSettlingSeconds = 3600;
// Fewer seconds than this after the settling give no useful MTIE or TDEV.
constexpr std::size_t kMinMeasuredSeconds = 60;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

std::string utc(std::int64_t unixSecond)
{
    const auto t = static_cast<std::time_t>(unixSecond);
    std::tm tm{};
    if (gmtime_r(&t, &tm) == nullptr)
        return format("%lld", static_cast<long long>(unixSecond));
    char text[32];
    if (std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm) == 0)
        return format("%lld", static_cast<long long>(unixSecond));
    return text;
}

std::string duration(std::int64_t seconds)
{
    return format("%lld s = %lld:%02lld:%02lld", static_cast<long long>(seconds),
                  static_cast<long long>(seconds / 3600), static_cast<long long>(seconds / 60 % 60),
                  static_cast<long long>(seconds % 60));
}

std::string optionalNumber(const std::optional<double> &value)
{
    return value ? format("%.3f", *value) : std::string();
}

// ---- The run's data.

// A half-open range of indices into the run's seconds.
struct Stretch {
    std::size_t begin = 0;
    std::size_t end = 0;
    std::size_t size() const
    {
        return end - begin;
    }
};

template <typename Flag>
std::vector<Stretch> stretchesWhere(const std::vector<ReportSecond> &seconds, Flag flag)
{
    std::vector<Stretch> out;
    for (std::size_t i = 0; i < seconds.size(); i++) {
        if (!flag(seconds[i]))
            continue;
        if (!out.empty() && out.back().end == i)
            out.back().end = i + 1;
        else
            out.push_back({i, i + 1});
    }
    return out;
}

// The time axis: seconds, minutes or hours since the run's first second.
struct TimeAxis {
    std::int64_t start = 0;
    double unit = 1;
    const char *name = "s";

    explicit TimeAxis(const std::vector<ReportSecond> &seconds)
    {
        start = seconds.front().unixSecond;
        const std::int64_t span = seconds.back().unixSecond - start + 1;
        if (span > std::int64_t{10800}) { // three hours
            unit = 3600;
            name = "h";
        } else if (span > 600) {
            unit = 60;
            name = "min";
        }
    }
    double at(std::int64_t unixSecond) const
    {
        return static_cast<double>(unixSecond - start) / unit;
    }
    Axis axis(const std::vector<ReportSecond> &seconds, std::size_t begin, std::size_t end) const
    {
        const double lo = at(seconds[begin].unixSecond);
        const double hi = at(seconds[end - 1].unixSecond + 1);
        return Axis{lo, hi, false, format("time since the run's start [%s]", name), {}};
    }
};

std::string phasePlot(const char *title, const std::vector<ReportSecond> &seconds,
                      const TimeAxis &time, std::size_t begin, std::size_t end)
{
    std::vector<Point> trueOffset;
    std::vector<Point> readOffset;
    for (std::size_t i = begin; i < end; i++) {
        const double x = time.at(seconds[i].unixSecond);
        trueOffset.push_back({x, seconds[i].trueOffsetNs});
        readOffset.push_back({x, seconds[i].offsetRead ? seconds[i].readOffsetNs : kNaN});
    }
    trueOffset = envelope(trueOffset);
    readOffset = envelope(readOffset);
    std::vector<Point> both = trueOffset;
    both.insert(both.end(), readOffset.begin(), readOffset.end());
    Plot plot(title, time.axis(seconds, begin, end), linearAxis(both, "phase error [ns]"));
    // The true error on top: it is what the run is judged by.
    plot.line("read-offset", "offset read by the daemon", "#ff7f0e", readOffset);
    plot.line("true-offset", "true phase error", "#1f4e9c", trueOffset);
    return plot.svg();
}

std::string dacPlot(const std::vector<ReportSecond> &seconds, const TimeAxis &time)
{
    std::vector<Point> dac;
    dac.reserve(seconds.size());
    for (const ReportSecond &s : seconds)
        dac.push_back({time.at(s.unixSecond), static_cast<double>(s.dacCode)});
    dac = envelope(dac);
    Plot plot("DAC code", time.axis(seconds, 0, seconds.size()), linearAxis(dac, "code"), 220);
    plot.line("dac-code", "DAC code in force", "#2ca02c", dac);
    return plot.svg();
}

std::string statePlot(const std::vector<ReportSecond> &seconds, const TimeAxis &time)
{
    struct Row {
        const char *series;
        const char *name;
        const char *colour;
        bool ReportSecond::*flag;
    };
    static constexpr Row kRows[] = {
        {"reference-valid", "reference", "#2ca02c", &ReportSecond::referenceValid},
        {"alarm", "alarm", "#d62728", &ReportSecond::alarm},
        {"antenna-fault", "antenna fault", "#9467bd", &ReportSecond::antennaFault},
        {"steering", "steering", "#1f77b4", &ReportSecond::steering},
    };
    constexpr double kRowCount = std::size(kRows);
    Axis y{0, kRowCount, false, "", {}};
    for (std::size_t r = 0; r < std::size(kRows); r++)
        y.names.emplace_back(kRowCount - static_cast<double>(r) - 0.5, kRows[r].name);
    Plot plot("States", time.axis(seconds, 0, seconds.size()), y, 200);
    for (std::size_t r = 0; r < std::size(kRows); r++) {
        std::vector<std::pair<double, double>> spans;
        for (const Stretch &s : stretchesWhere(
                 seconds, [&](const ReportSecond &second) { return second.*kRows[r].flag; }))
            spans.emplace_back(time.at(seconds[s.begin].unixSecond),
                               time.at(seconds[s.end - 1].unixSecond + 1));
        const double top = kRowCount - static_cast<double>(r);
        plot.bands(kRows[r].series, kRows[r].name, kRows[r].colour, spans, top - 0.85, top - 0.15);
    }
    return plot.svg();
}

// PTP packets per UTC minute, as steps over each minute. A minute the run
// covers only in part is scaled up to a whole minute's rate.
std::string ptpPlot(const std::vector<ReportSecond> &seconds, const TimeAxis &time)
{
    std::vector<Point> requests;
    std::vector<Point> responses;
    for (std::size_t i = 0; i < seconds.size();) {
        const std::int64_t minute = seconds[i].unixSecond / 60;
        double req = 0;
        double resp = 0;
        std::size_t j = i;
        for (; j < seconds.size() && seconds[j].unixSecond / 60 == minute; j++) {
            req += seconds[j].ptpRequests;
            resp += seconds[j].ptpResponses;
        }
        const double scale = 60.0 / static_cast<double>(j - i);
        const double x0 = time.at(seconds[i].unixSecond);
        const double x1 = time.at(seconds[j - 1].unixSecond + 1);
        requests.push_back({x0, req * scale});
        requests.push_back({x1, req * scale});
        responses.push_back({x0, resp * scale});
        responses.push_back({x1, resp * scale});
        i = j;
    }
    requests = envelope(requests);
    responses = envelope(responses);
    std::vector<Point> both = requests;
    both.insert(both.end(), responses.begin(), responses.end());
    Plot plot("PTP packets per minute", time.axis(seconds, 0, seconds.size()),
              linearAxis(both, "packets / min"), 220);
    plot.line("ptp-requests", "requests", "#1f77b4", requests);
    plot.line("ptp-responses", "responses", "#ff7f0e", responses, true);
    return plot.svg();
}

// A metric and its mask against the observation interval, log-log.
std::string metricPlot(const char *title, const char *series, const MetricsSummary &summary,
                       std::optional<double> MetricPoint::*value,
                       std::optional<double> MetricPoint::*mask)
{
    std::vector<Point> measured;
    std::vector<Point> limit;
    for (const MetricPoint &p : summary.points) {
        const auto tau = static_cast<double>(p.n);
        if (p.*value)
            measured.push_back({tau, *(p.*value)});
        if (p.*value && p.*mask)
            limit.push_back({tau, *(p.*mask)});
    }
    std::vector<Point> both = measured;
    both.insert(both.end(), limit.begin(), limit.end());
    std::vector<Point> taus;
    taus.reserve(measured.size());
    for (const Point &p : measured)
        taus.push_back({0, p.x});
    Axis x = logAxis(taus, "observation interval \xcf\x84 [s]");
    Plot plot(title, std::move(x), logAxis(both, std::string(title) + " [ns]"));
    plot.line(series, "measured", "#1f77b4", measured);
    plot.line((std::string(series) + "-mask").c_str(), "PRTC-A mask", "#d62728", limit, true);
    return plot.svg();
}

std::string verdict(bool pass)
{
    return pass ? "<span class=\"pass\">PASS</span>" : "<span class=\"fail\">FAIL</span>";
}

std::string maskLine(const char *metric, const MaskVerdict &v)
{
    if (v.judged == 0)
        return format("<li>%s: no point under the mask</li>\n", metric);
    return format("<li>%s: %s &mdash; worst at &tau; = %.0f s, %.3f of the mask (%zu points "
                  "judged)</li>\n",
                  metric, verdict(v.pass).c_str(), v.worstTauS, v.worstRatio, v.judged);
}

// The metrics over the longest steered stretch, after the loop's settling.
std::string metricsSection(const std::vector<ReportSecond> &seconds,
                           const std::optional<Stretch> &steered, std::string &metricsCsv)
{
    std::string out = "<h2>Timing metrics</h2>\n";
    if (!steered) {
        out += "<p>The daemon never steered the oscillator in this run: nothing to measure.</p>\n";
        return out;
    }
    const Stretch longest = *steered;
    const std::int64_t from = seconds[longest.begin].unixSecond;
    const std::int64_t to = seconds[longest.end - 1].unixSecond + 1;
    appendf(out,
            "<p>Measured on the true phase error over the longest steered stretch, %s to %s "
            "UTC, %s, leaving out its first %zu s while the steering loop settles.",
            utc(from).c_str(), utc(to).c_str(), duration(to - from).c_str(), kLoopSettlingSeconds);
    if (longest.size() < kLoopSettlingSeconds + kMinMeasuredSeconds) {
        appendf(out, " That leaves %zu s, too short for the metrics (at least %zu s).</p>\n",
                longest.size() > kLoopSettlingSeconds ? longest.size() - kLoopSettlingSeconds : 0,
                kMinMeasuredSeconds);
        return out;
    }
    out += " Masks: ITU-T G.8272 PRTC-A; there is no TDEV mask beyond 10000 s, so points there "
           "are not judged.</p>\n";

    std::vector<double> x;
    for (std::size_t i = longest.begin + kLoopSettlingSeconds; i < longest.end; i++)
        x.push_back(seconds[i].trueOffsetNs);
    const MetricsSummary summary = summarize(x);

    out += "<ul class=\"verdicts\">\n";
    appendf(out, "<li>max |TE| %.3f ns against the limit of %.0f ns: %s</li>\n", summary.maxAbsTeNs,
            kTimeErrorLimitNs, verdict(summary.timeErrorPass).c_str());
    out += maskLine("MTIE", summary.mtie);
    out += maskLine("TDEV", summary.tdev);
    out += "</ul>\n";
    out += metricPlot("MTIE", "mtie", summary, &MetricPoint::mtieNs, &MetricPoint::mtieMaskNs);
    out += metricPlot("TDEV", "tdev", summary, &MetricPoint::tdevNs, &MetricPoint::tdevMaskNs);

    for (const MetricPoint &p : summary.points)
        metricsCsv += format("%zu", p.n) + ',' + optionalNumber(p.mtieNs) + ',' +
                      optionalNumber(p.mtieMaskNs) + ',' + optionalNumber(p.tdevNs) + ',' +
                      optionalNumber(p.tdevMaskNs) + '\n';
    return out;
}

// How long after each start of steering the true phase error came within
// the limit for good.
std::string settlingSection(const std::vector<ReportSecond> &seconds,
                            const std::vector<Stretch> &steered)
{
    std::string out = "<h2>Settling</h2>\n";
    if (steered.empty())
        return out + "<p>No steering in this run.</p>\n";
    appendf(out,
            "<p>From each start of steering until |true phase error| stays within %.0f ns "
            "for the rest of that steered stretch.</p>\n<table>\n<tr><th>steering from "
            "(UTC)</th><th>after</th><th>stretch</th><th>settled after</th></tr>\n",
            kTimeErrorLimitNs);
    for (std::size_t k = 0; k < steered.size(); k++) {
        const Stretch &s = steered[k];
        std::vector<double> x;
        for (std::size_t i = s.begin; i < s.end; i++)
            x.push_back(seconds[i].trueOffsetNs);
        const std::optional<std::size_t> settled = settlingSeconds(x);
        const std::string after =
            k == 0 ? std::string("first steering")
                   : format("a gap of %lld s",
                            static_cast<long long>(seconds[s.begin].unixSecond -
                                                   seconds[steered[k - 1].end - 1].unixSecond - 1));
        appendf(out, "<tr><td>%s</td><td>%s</td><td>%zu s</td><td>%s</td></tr>\n",
                utc(seconds[s.begin].unixSecond).c_str(), after.c_str(), s.size(),
                settled ? format("%zu s", *settled).c_str() : "never");
    }
    return out + "</table>\n";
}

std::string seriesCsv(const std::vector<ReportSecond> &seconds)
{
    std::string out = "unix_second,true_offset_ns,read_offset_ns,dac_code,reference_valid,alarm,"
                      "antenna_fault,steering,ptp_requests,ptp_responses\n";
    for (const ReportSecond &s : seconds) {
        appendf(out, "%lld,%.3f,", static_cast<long long>(s.unixSecond), s.trueOffsetNs);
        if (s.offsetRead)
            appendf(out, "%.3f", s.readOffsetNs);
        appendf(out, ",%d,%d,%d,%d,%d,%d,%d\n", s.dacCode, s.referenceValid ? 1 : 0,
                s.alarm ? 1 : 0, s.antennaFault ? 1 : 0, s.steering ? 1 : 0, s.ptpRequests,
                s.ptpResponses);
    }
    return out;
}

// The only script on the page. It proves in a browser that each plot was
// drawn, not just written: every data series must have a length and a box
// of some width and height inside the plot (a flat line has no height), and
// the result goes into data-drawn on each plot and data-plots-drawn on the body.
constexpr const char *kDrawnCheck = R"(<script>
window.addEventListener('load', function () {
  var plots = document.querySelectorAll('svg.plot'), drawn = 0;
  plots.forEach(function (svg) {
    var view = svg.viewBox.baseVal, series = svg.querySelectorAll('[data-series]');
    var ok = series.length > 0;
    series.forEach(function (e) {
      var box = e.getBBox();
      var inside = box.x >= view.x - 1 && box.y >= view.y - 1 &&
          box.x + box.width <= view.x + view.width + 1 && box.y + box.height <= view.y + view.height + 1;
      if (!(e.getTotalLength() > 0 && box.width > 0 &&
            (box.height > 0 || e.getAttribute('data-flat') === 'yes') && inside))
        ok = false;
    });
    svg.setAttribute('data-drawn', ok ? 'yes' : 'no');
    if (ok) drawn++;
  });
  document.body.setAttribute('data-plots-drawn', drawn + '/' + plots.length);
});
</script>
)";

constexpr const char *kStyle = R"(<style>
body { font-family: sans-serif; margin: 1.5em; color: #222; max-width: 960px; }
svg.plot { display: block; width: 100%; max-width: 900px; height: auto; margin: 0.5em 0 1.5em; }
svg.plot text { font-size: 12px; fill: #222; }
svg.plot .frame { fill: none; stroke: #444; }
svg.plot .grid { stroke: #ddd; }
.pass { color: #17803d; font-weight: bold; }
.fail { color: #c0161c; font-weight: bold; }
table { border-collapse: collapse; }
td, th { border: 1px solid #bbb; padding: 0.2em 0.6em; text-align: left; }
pre { background: #f4f4f4; padding: 0.6em; overflow-x: auto; }
</style>
)";

std::string page(const ReportInput &input, std::string &metricsCsv)
{
    const std::vector<ReportSecond> &seconds = input.seconds;
    std::string out = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
    appendf(out, "<title>%s: simulated run</title>\n", escape(input.title).c_str());
    out += kStyle;
    out += "</head>\n<body>\n";
    appendf(out, "<h1>%s: simulated run</h1>\n<p>Oscillator: %s<br>\n", escape(input.title).c_str(),
            escape(input.oscillator).c_str());
    if (seconds.empty()) {
        out += "Run: no seconds recorded.</p>\n";
    } else {
        const std::int64_t from = seconds.front().unixSecond;
        const std::int64_t to = seconds.back().unixSecond + 1;
        appendf(out, "Run: %s to %s UTC, %s</p>\n", utc(from).c_str(), utc(to).c_str(),
                duration(to - from).c_str());
        const TimeAxis time(seconds);
        const std::vector<Stretch> steered =
            stretchesWhere(seconds, [](const ReportSecond &s) { return s.steering; });

        // The metrics judge the longest steered stretch (the first of equals).
        std::optional<Stretch> longest;
        for (const Stretch &s : steered)
            if (!longest || s.size() > longest->size())
                longest = s;

        out += "<h2>The run</h2>\n";
        out += phasePlot("Phase error", seconds, time, 0, seconds.size());
        if (longest) {
            // Closer in: the stretch the metrics judge, after the loop's settling
            // when it is long enough.
            Stretch zoom = *longest;
            const bool measured = zoom.size() >= kLoopSettlingSeconds + kMinMeasuredSeconds;
            if (measured)
                zoom.begin += kLoopSettlingSeconds;
            const std::string title =
                measured ? format("Phase error, longest steered stretch after its first %zu s",
                                  kLoopSettlingSeconds)
                         : std::string("Phase error, longest steered stretch");
            out += phasePlot(title.c_str(), seconds, time, zoom.begin, zoom.end);
        }
        out += dacPlot(seconds, time);
        out += statePlot(seconds, time);
        out += ptpPlot(seconds, time);
        out += metricsSection(seconds, longest, metricsCsv);
        out += settlingSection(seconds, steered);
    }
    appendf(out, "<h2>Status page at the end</h2>\n<pre>%s</pre>\n",
            escape(input.statusPage).c_str());
    out += kDrawnCheck;
    out += "</body>\n</html>\n";
    return out;
}

std::string writeFile(const std::filesystem::path &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    if (!out)
        return "cannot write " + path.string();
    return {};
}

} // namespace

std::string writeReport(const std::string &dir, const ReportInput &input)
{
    std::error_code error;
    std::filesystem::create_directories(dir, error);
    if (error)
        return "cannot create " + dir + ": " + error.message();
    std::string metricsCsv = "tau_s,mtie_ns,mtie_mask_ns,tdev_ns,tdev_mask_ns\n";
    std::string html = page(input, metricsCsv);
    const std::pair<const char *, std::string> files[] = {
        {"report.html", std::move(html)},
        {"series.csv", seriesCsv(input.seconds)},
        {"metrics.csv", std::move(metricsCsv)},
    };
    for (const auto &[name, text] : files)
        if (std::string why = writeFile(std::filesystem::path(dir) / name, text); !why.empty())
            return why;
    return {};
}

} // namespace zarvent::sim
