#include "view.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <vector>

#include "state/shared_state.h"
#include "text.h"

namespace zarvent::sim {

namespace {

constexpr std::size_t kPlotPoints = 72;
constexpr int kPlotRows = 11;

// The status page as the web interface shows it: tags removed, tabs kept.
void printPage(const VirtualBoard &board)
{
    const auto page = board.files().readFile("/ramcache/zarvent/ntp_data.txt");
    if (!page) {
        std::printf("  (no status page yet)\n");
        return;
    }
    std::string out = "  ";
    bool inTag = false;
    for (std::size_t i = 0; i < page->size(); i++) {
        const char c = (*page)[i];
        if (c == '<') {
            inTag = true;
        } else if (c == '>') {
            inTag = false;
        } else if (!inTag) {
            out += c;
            if (c == '\n' && i + 1 < page->size())
                out += "  ";
        }
    }
    (void)std::fputs(out.c_str(), stdout);
}

// The newest chart points, from the chart files the web interface draws:
// the offsets after each "), " of the three newest per-minute files.
std::vector<long> chartPoints(const VirtualBoard &board)
{
    std::vector<std::string> names;
    std::error_code error;
    for (const auto &entry :
         std::filesystem::directory_iterator(board.files().hostPath("/ramcache/zarvent"), error)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("ptp_data_") && name.find('~') != std::string::npos)
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    std::vector<long> points;
    for (std::size_t i = names.size() < 3 ? 0 : names.size() - 3; i < names.size(); i++) {
        const std::string text =
            board.files().readFile("/ramcache/zarvent/" + names[i]).value_or("");
        for (std::size_t p = text.find("), "); p != std::string::npos; p = text.find("), ", p + 1))
            points.push_back(std::strtol(text.c_str() + p + 3, nullptr, 10));
    }
    if (points.size() > kPlotPoints)
        points.erase(points.begin(), points.end() - static_cast<std::ptrdiff_t>(kPlotPoints));
    return points;
}

void printPlot(const VirtualBoard &board)
{
    const std::vector<long> v = chartPoints(board);
    if (v.empty()) {
        std::printf("  (no chart points yet: steering starts after 60 valid cycles)\n");
        return;
    }
    long span = 10;
    for (const long point : v)
        span = std::max(span, std::labs(point));
    const auto spanD = static_cast<double>(span);
    for (int row = 0; row < kPlotRows; row++) {
        const double level = spanD - (2.0 * spanD * row) / (kPlotRows - 1);
        const double half = spanD / (kPlotRows - 1);
        std::string line = format("  %7.0f |", level);
        for (const long point : v) {
            const auto p = static_cast<double>(point);
            line += p > level - half && p <= level + half ? '*' : row == kPlotRows / 2 ? '-' : ' ';
        }
        std::printf("%s\n", line.c_str());
    }
    std::printf("          last %zu points, newest right; offset [ns] after the clamp to +-10000\n",
                v.size());
}

const char *led(const VirtualBoard &board, int line)
{
    const int level = board.gpio().level(line);
    return level < 0 ? "?" : level != 0 ? "1" : "0";
}

const char *antennaText(unsigned code)
{
    switch (code) {
    case 7:
        return "Ok";
    case 6:
        return "Off";
    case 5:
        return "Short";
    default:
        return "held off / unknown";
    }
}

} // namespace

View::View(std::string outDir, std::string scenario, double pace)
    : outDir_(std::move(outDir)), scenario_(std::move(scenario)), pace_(pace)
{}

void View::second(const SecondView &view) const
{
    const VirtualBoard &board = view.board;
    const auto t = static_cast<std::time_t>(view.unixSecond);
    std::tm tm{};
    ::gmtime_r(&t, &tm);
    const BoardStats s = view.model.stats();
    const char *out = outDir_.c_str();
    std::printf("\033[H\033[2J");
    std::printf("Zarvent on the simulated board  |  scenario %s  |  board time %04d-%02d-%02d "
                "%02d:%02d:%02d UTC",
                scenario_.c_str(), tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour,
                tm.tm_min, tm.tm_sec);
    if (pace_ > 0)
        std::printf("  |  pace %gx\n", pace_);
    else
        std::printf("  |  fast\n");
    std::printf("\n-- status page (%s/board/ramcache/zarvent/ntp_data.txt)\n", out);
    printPage(board);
    std::printf("\n-- offset chart (chart files %s/board/ramcache/zarvent/ptp_data_*)\n", out);
    printPlot(board);

    const SharedState &shared = view.daemon.shared();
    const Reference reference = shared.reference;
    std::printf("\n-- states\n");
    std::printf("  reference %s   alarm %s   antenna %s   steering %s\n",
                reference == Reference::NotYetAsked ? "(not yet asked)" : referenceName(reference),
                shared.alarm ? "ON" : "off", antennaText(shared.antennaCode),
                view.daemon.steeringEnabled() ? "on" : "off (waiting for 60 valid cycles)");
    std::printf("\n-- LEDs and lines\n");
    std::printf("  reference 72/73: %s %s   alarm 76/77: %s %s   antenna 74/75: %s %s   "
                "client 70/71: %s %s   factory 78: %s   antenna feed 85: %s\n",
                led(board, 72), led(board, 73), led(board, 76), led(board, 77), led(board, 74),
                led(board, 75), led(board, 70), led(board, 71), led(board, 78), led(board, 85));
    std::printf("  DAC code %d   oscillator offset %.1f ns   hand-overs accepted %d rejected %d\n",
                s.lastDacCode, s.offsetNs, s.handoversAccepted, s.handoversRejected);
    std::printf(
        "\n-- files: status page, chart files and errorlog in %s/board/ramcache/zarvent/,\n"
        "   stat.txt in %s/board/ftpdir/, run logs (commands, lines, DAC words) in %s/logs/ "
        "at the end\n"
        "   Ctrl-C stops the run.\n",
        out, out, out);
    (void)std::fflush(stdout);
}

} // namespace zarvent::sim
