#include "statistics/metrics_file.h"

#include "platform/files.h"

#ifndef ZARVENT_VERSION
#define ZARVENT_VERSION "unknown"
#endif

namespace zarvent {

namespace {

class Exposition {
  public:
    void family(const char *name, const char *type, const char *help)
    {
        text_ += formatText("# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
    }
    void sample(const char *name, const std::string &labels, const std::string &value)
    {
        text_ += name;
        if (!labels.empty())
            text_ += "{" + labels + "}";
        text_ += " " + value + "\n";
    }
    void one(const char *name, const char *type, const char *help, const std::string &value)
    {
        family(name, type, help);
        sample(name, "", value);
    }
    std::string take()
    {
        return std::move(text_);
    }

  private:
    std::string text_;
};

std::string seconds(long nanoseconds)
{
    return formatText("%.9f", static_cast<double>(nanoseconds) / 1e9);
}

std::string number(std::uint64_t value)
{
    return std::to_string(value);
}

std::string flag(bool value)
{
    return value ? "1" : "0";
}

} // namespace

std::string formatMetrics(const MetricsSnapshot &m)
{
    Exposition e;
    e.one("zarvent_offset_seconds", "gauge",
          "Phase offset of the FPGA pulse against the reference, this cycle.", seconds(m.offsetNs));
    e.one("zarvent_offset_valid", "gauge",
          "1 when this cycle's offset is the FPGA's measurement; 0 when the read failed, timed "
          "out or was refused, or the FPGA had none (the offset then reads 0).",
          flag(m.offsetMeasured));
    e.one("zarvent_offset_mean_seconds", "gauge", "Filtered mean offset, as on the status page.",
          seconds(m.meanOffsetNs));
    e.one("zarvent_jitter_seconds", "gauge", "Offset jitter, as on the status page.",
          seconds(m.jitterNs));
    e.one("zarvent_dac_code", "gauge", "Code last sent to the oscillator's DAC (0 to 65535).",
          std::to_string(m.dacCode));
    e.one("zarvent_steering", "gauge",
          "1 while the oscillator is steered (the receiver qualified), else 0.", flag(m.steering));
    e.one("zarvent_receiver_valid_cycles", "gauge",
          "Valid receiver cycles in a row toward qualification (60 qualify).",
          number(m.validCycles));
    e.family("zarvent_reference", "gauge", "1 for the reference ntpd follows, 0 for the others.");
    // Before the supervision loop has asked, no reference is known to be
    // followed: "none" until the first pass says otherwise.
    e.sample("zarvent_reference", "state=\"system_peer\"",
             flag(m.reference == Reference::SystemPeer));
    e.sample("zarvent_reference", "state=\"pps_peer\"", flag(m.reference == Reference::PpsPeer));
    e.sample("zarvent_reference", "state=\"none\"",
             flag(m.reference == Reference::None || m.reference == Reference::NotYetAsked));
    e.one("zarvent_alarm", "gauge", "1 while the alarm is on.", flag(m.alarm));
    e.family("zarvent_antenna", "gauge", "1 for the antenna's state, 0 for the others.");
    // Bit 1 is the short-detect line (0: a short, whether or not the feed is
    // cut for it), bit 0 the current-detect line (0: no current, an open
    // feed).
    const bool shorted = (m.antennaCode & 2u) == 0;
    const bool open = !shorted && (m.antennaCode & 1u) == 0;
    const bool ok = m.antennaCode == 7;
    e.sample("zarvent_antenna", "state=\"ok\"", flag(ok));
    e.sample("zarvent_antenna", "state=\"short\"", flag(shorted));
    e.sample("zarvent_antenna", "state=\"open\"", flag(open));
    e.sample("zarvent_antenna", "state=\"unknown\"", flag(!ok && !shorted && !open));
    e.one("zarvent_gps_emulation", "gauge", "1 while GPS emulation is on.", flag(m.gpsEmulation));
    e.one("zarvent_ptp_requests_total", "counter", "PTP requests the FPGA counted.",
          number(m.ptpRequests));
    e.one("zarvent_ptp_responses_total", "counter", "PTP responses the FPGA counted.",
          number(m.ptpResponses));
    e.one("zarvent_handovers_closed_total", "counter",
          "Seconds counts handed to the FPGA and closed.", number(m.handoversClosed));
    e.one("zarvent_handovers_failed_total", "counter",
          "Hand-overs of the seconds count that ended before they were closed.",
          number(m.handoversFailed));
    e.one("zarvent_handovers_skipped_total", "counter",
          "Hand-overs not made because the clock read at the pulse lay more than 100 ms from "
          "the top of a second.",
          number(m.handoversSkipped));
    e.one("zarvent_pulse", "gauge", "1 while the FPGA's pulse arrives, 0 after 3 s without one.",
          flag(m.pulse));
    e.one("zarvent_fpga_configured", "gauge",
          "1 once the FPGA has answered since its bitstream was loaded.", flag(m.fpgaConfigured));
    if (m.kernelClockSynchronised)
        e.one("zarvent_kernel_clock_synchronised", "gauge",
              "1 while ntptime reports the kernel clock synchronised, 0 while it reports it "
              "unsynchronised (code 5).",
              flag(*m.kernelClockSynchronised));
    e.one("zarvent_tai_offset_seconds", "gauge",
          "TAI-UTC in use for the FPGA's seconds count, from the leap-second list; -1 unknown.",
          std::to_string(m.taiOffset));
    if (m.kernelTaiOffset)
        e.one("zarvent_kernel_tai_offset_seconds", "gauge",
              "The kernel's TAI offset as ntptime prints it (0: never set).",
              std::to_string(*m.kernelTaiOffset));
    e.family("zarvent_read_failures_total", "counter",
             "Reads that gave no value (not started, killed at the deadline, too few lines, not "
             "the documented form), by what was read.");
    for (const auto &[what, count] : m.failedReads)
        e.sample("zarvent_read_failures_total", "read=\"" + what + "\"", number(count));
    e.family("zarvent_command_refused", "gauge",
             "1 while a tool's starts are refused because a killed command of it is still stuck.");
    for (const auto &[tool, counts] : m.commands)
        e.sample("zarvent_command_refused", "tool=\"" + tool + "\"", flag(counts.refused));
    const struct {
        const char *name;
        const char *help;
        std::uint64_t ToolCounts::*field;
    } commandFamilies[] = {
        {"zarvent_commands_total", "Commands run, by tool.", &ToolCounts::run},
        {"zarvent_command_failures_total",
         "Commands that could not be started or ended with a failing status (grep's 1, no "
         "line matched, is an answer), by tool.",
         &ToolCounts::failed},
        {"zarvent_command_timeouts_total", "Commands killed at their deadline, by tool.",
         &ToolCounts::timedOut},
    };
    for (const auto &f : commandFamilies) {
        e.family(f.name, "counter", f.help);
        for (const auto &[tool, counts] : m.commands)
            e.sample(f.name, "tool=\"" + tool + "\"", number(counts.*(f.field)));
    }
    e.one("zarvent_errorlog_lines_total", "counter", "Lines written to the error log.",
          number(m.errorLogLines));
    e.one("zarvent_ramdisk_free_bytes", "gauge", "Free bytes on the RAM disk.",
          number(m.ramDiskFreeBytes));
    e.one("zarvent_ramdisk_free_inodes", "gauge", "Free inodes on the RAM disk.",
          number(m.ramDiskFreeInodes));
    e.one("zarvent_chart_files", "gauge", "Chart files kept on the RAM disk.",
          number(m.chartFiles));
    e.one("zarvent_start_time_seconds", "gauge", "When the daemon started, in Unix seconds.",
          std::to_string(m.startTime));
    e.one("zarvent_last_cycle_timestamp_seconds", "gauge",
          "The second of the last cycle, in Unix seconds: stale when the daemon stalls.",
          std::to_string(m.lastCycle));
    e.family("zarvent_build_info", "gauge", "The daemon's version.");
    e.sample("zarvent_build_info", "version=\"" ZARVENT_VERSION "\"", "1");
    return e.take();
}

bool writeMetrics(Platform &platform, const MetricsSnapshot &m)
{
    const std::string text = formatMetrics(m);
    for (int attempt = 0; attempt < 2; ++attempt) {
        OutputFile file(platform, metrics::kFile, OutputFile::Mode::Replace);
        if (file.isOpen()) {
            file.write(text);
            return file.close();
        }
        // The RAM disk is made anew at boot: the directory comes with the
        // first write.
        if (attempt == 0 && !platform.makeDirectory(metrics::kDirectory))
            return false;
    }
    return false;
}

void removeMetrics(Platform &platform)
{
    platform.removeFile(metrics::kFile);
}

} // namespace zarvent
