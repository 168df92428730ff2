// The report's record of a simulated run: one row per board second, finished
// at the next second's start, once the second's cycle has run; written with
// the status page at the end as the run's report (report.h).
#pragma once

#include <cstdint>
#include <string>

#include "report.h"
#include "scenario.h"

namespace zarvent::sim {

class ReportRecorder final : public RunObserver {
  public:
    // The report of the scenario at scenarioPath, to be written into dir.
    ReportRecorder(std::string dir, const std::string &scenarioPath);

    void started(const BoardConfig &config, std::int64_t durationS) override;
    void second(const SecondView &view) override;
    std::string finished(VirtualBoard &board) override;

  private:
    std::string dir_;
    ReportInput input_;
};

} // namespace zarvent::sim
