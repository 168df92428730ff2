// The report of one simulated run: what an engineer judges a clock by.
//
// writeReport() turns the per-second record of a run into DIR/report.html (one
// self-contained page: inline SVG, no script or style from the network),
// DIR/series.csv (the data behind every plot, one row per board second) and
// DIR/metrics.csv (MTIE and TDEV with their masks, per observation interval).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zarvent::sim {

// One board second, taken just after the second's cycle.
struct ReportSecond {
    std::int64_t unixSecond = 0;
    double trueOffsetNs = 0;     // the oscillator's true phase error at the pulse
    bool offsetRead = false;     // the daemon read an offset this second
    double readOffsetNs = 0;     // the offset the daemon read (the status page's figure)
    int dacCode = 0;             // the DAC code in force
    bool referenceValid = false; // the receiver's data valid (RMC status A)
    bool alarm = false;          // the alarm output active
    bool antennaFault = false;   // the antenna supervision reports a fault
    bool steering = false;       // the daemon steers the oscillator this second
    int ptpRequests = 0;         // PTP packets counted this second
    int ptpResponses = 0;
};

struct ReportInput {
    std::string title;      // the scenario's name
    std::string oscillator; // the oscillator model in words ("ocxo", "tcxo", parameters)
    std::vector<ReportSecond> seconds;
    std::string statusPage; // the status page as the web interface shows it at the end
};

// Writes report.html and series.csv into dir (created when missing); the
// reason when it cannot.
std::string writeReport(const std::string &dir, const ReportInput &input);

} // namespace zarvent::sim
