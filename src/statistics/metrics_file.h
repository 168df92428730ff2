// The daemon's state for Prometheus: /ramcache/zarvent/metrics/zarvent.prom in
// the text exposition format, for node_exporter's textfile collector
// (--collector.textfile.directory=/ramcache/zarvent/metrics). The cycle
// thread writes it whole once a cycle, from values it holds or that the page
// shows anyway: no command is run for it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "hardware/runner.h"
#include "state/shared_state.h"

namespace zarvent {

class Platform;

namespace metrics {
constexpr const char *kDirectory = "/ramcache/zarvent/metrics";
constexpr const char *kFile = "/ramcache/zarvent/metrics/zarvent.prom";
} // namespace metrics

struct MetricsSnapshot {
    // Offsets in nanoseconds, as the page shows them.
    long offsetNs = 0;
    bool offsetMeasured = false; // this cycle's offset came from the FPGA
    long meanOffsetNs = 0;
    long jitterNs = 0;
    unsigned dacCode = 0;
    bool steering = false;
    std::uint32_t validCycles = 0; // the receiver's valid cycles in a row
    Reference reference = Reference::NotYetAsked;
    bool alarm = false;
    // The monitor's code: feed on in bit 2, no short in bit 1, current flows
    // in bit 0; 7 is a good antenna.
    unsigned antennaCode = 0;
    bool gpsEmulation = false;
    std::uint64_t ptpRequests = 0;
    std::uint64_t ptpResponses = 0;
    std::uint64_t handoversClosed = 0;
    std::uint64_t handoversFailed = 0;
    std::uint64_t handoversSkipped = 0; // the clock disagreed with the pulse
    bool pulse = false;                 // the FPGA's pulse arrives
    bool fpgaConfigured = false;        // the FPGA answered since its load
    // What ntptime's first and third lines said last; nothing before they
    // were read in their documented form.
    std::optional<bool> kernelClockSynchronised;
    std::optional<std::int32_t> kernelTaiOffset;
    std::int32_t taiOffset = 0; // in use, from the leap-second list (-1 unknown)
    std::map<std::string, ToolCounts, std::less<>> commands;
    std::map<std::string, std::uint64_t, std::less<>> failedReads;
    std::uint64_t errorLogLines = 0;
    std::uint64_t ramDiskFreeBytes = 0;
    std::uint64_t ramDiskFreeInodes = 0;
    std::uint64_t chartFiles = 0;
    std::int64_t startTime = 0; // Unix seconds
    std::int64_t lastCycle = 0; // Unix seconds
};

// The exposition text: HELP and TYPE for every family, base units (seconds,
// bytes), counters ending in _total.
std::string formatMetrics(const MetricsSnapshot &m);

// Writes the file whole (temporary file and rename), making its directory
// when it is missing; false when it could not be written.
bool writeMetrics(Platform &platform, const MetricsSnapshot &m);
// Removes the file: a daemon that has stopped claims nothing.
void removeMetrics(Platform &platform);

} // namespace zarvent
