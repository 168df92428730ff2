#include "report_recorder.h"

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <utility>

#include "text.h"

namespace zarvent::sim {

ReportRecorder::ReportRecorder(std::string dir, const std::string &scenarioPath)
    : dir_(std::move(dir))
{
    input_.title =
        scenarioPath.empty() ? "scenario" : std::filesystem::path(scenarioPath).stem().string();
}

void ReportRecorder::started(const BoardConfig &config, std::int64_t durationS)
{
    input_.oscillator =
        format("%s gain %.3f ppb/code, natural code %d, white phase noise %.1f ns, "
               "random walk %.4f ppb/s, temperature +-%.2f ppb, ageing %.2f ppb/day",
               config.oscillator.empty() ? "custom" : config.oscillator.c_str(), config.gain,
               config.naturalCode, config.noiseNs, config.randomWalkPpb, config.temperaturePpb,
               config.ageingPpbPerDay);
    input_.seconds.reserve(static_cast<std::size_t>(std::max<std::int64_t>(durationS, 0)));
}

void ReportRecorder::second(const SecondView &view)
{
    const BoardStats stats = view.model.stats();
    if (!input_.seconds.empty()) {
        ReportSecond &row = input_.seconds.back();
        if (stats.phaseSecond == row.unixSecond) {
            row.offsetRead = true;
            row.readOffsetNs = stats.phaseReadNs;
        }
        const auto [requests, responses] = view.model.ptpCounts(row.unixSecond);
        row.ptpRequests = std::max(requests, 0);
        row.ptpResponses = std::max(responses, 0);
        row.dacCode = stats.lastDacCode;
        const SharedState &shared = view.daemon.shared();
        row.steering = view.daemon.steeringEnabled();
        row.alarm = shared.alarm;
        const unsigned antenna = shared.antennaCode;
        row.antennaFault = antenna != 0 && antenna != 7; // 7: antenna Ok
    }
    ReportSecond next;
    next.unixSecond = view.unixSecond;
    next.trueOffsetNs = stats.offsetNs;
    next.referenceValid = view.board.ntp().rmcStatus() == 'A';
    input_.seconds.push_back(next);
}

std::string ReportRecorder::finished(VirtualBoard &board)
{
    // The last second's cycle has not been recorded: drop its row.
    if (!input_.seconds.empty())
        input_.seconds.pop_back();
    input_.statusPage = board.files().readFile("/ramcache/zarvent/ntp_data.txt").value_or("");
    return writeReport(dir_, input_);
}

} // namespace zarvent::sim
