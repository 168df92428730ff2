#include "daemon/cycle_loop.h"

#include "daemon/parts.h"
#include "hardware/board_map.h"
#include "ntp/ntp_queries.h"
#include "platform/platform.h"
#include "statistics/metrics_file.h"

namespace zarvent {

namespace {
constexpr unsigned kPollMicroseconds = 500;
} // namespace

std::int64_t cycleSecond(std::int64_t realtimeNs)
{
    constexpr std::int64_t kSecond = 1'000'000'000;
    return (realtimeNs + kSecond / 2) / kSecond;
}

CycleLoop::CycleLoop(Parts &parts) : parts_(parts), pulse_(parts.platform, pin::kPulse) {}

void CycleLoop::setup()
{
    parts_.gpio.exportPin(pin::kPulse);
    parts_.gpio.setDirectionIn(pin::kPulse);
    parts_.gpio.setEdge(pin::kPulse, "rising"); // set, but the thread polls the level
    if (const auto start = readNtptime(parts_.runner))
        parts_.shared.setEvent(start->dateTime, start->stamp);
    // The DAC's lines belong to this thread alone, so that no other thread's
    // set-up can drive its select line in the middle of a word.
    parts_.dac.configureLines();
    parts_.steering.sendDefaults();
}

void CycleLoop::runCycle()
{
    const std::int64_t second = cycleSecond(parts_.platform.realtimeNs());
    parts_.counters.readCounters(second);
    parts_.relay.acknowledge(second);
    parts_.client.switchOff();
    parts_.client.flashOnResponses();
    const auto now = readCurrentTime(parts_.runner, parts_.shared);
    // The hand-over needs this cycle's own reading of the time: without it
    // there is no count to hand over.
    if (parts_.shared.steering && now)
        parts_.handover.handOver(*now);
    const std::int32_t offset = parts_.offset.readOffset();
    parts_.offset.qualifyReceiver();
    parts_.page.write(offset);
    // Read again: the qualification of this cycle counts in this cycle.
    if (parts_.shared.steering) {
        parts_.dac.writeWord(dac::kReference, dac::kReferenceValue);
        parts_.steering.steer(offset);
    }
    writeMetricsFile(second);
}

void CycleLoop::writeMetricsFile(std::int64_t second)
{
    Platform &platform = parts_.platform;
    const SharedState &shared = parts_.shared;
    MetricsSnapshot m;
    const StatusPage::Shown &shown = parts_.page.shown();
    m.offsetNs = shown.offset;
    m.meanOffsetNs = shown.mean;
    m.jitterNs = shown.jitter;
    m.gpsEmulation = shown.emulation;
    m.steering = shared.steering;
    m.dacCode = parts_.steering.codeSent();
    m.validCycles = parts_.offset.validCycles();
    m.reference = referenceState(shared.reference());
    m.alarm = shared.alarm;
    m.antennaCode = shared.antennaCode;
    m.ptpRequests = parts_.counters.requestsTotal();
    m.ptpResponses = parts_.counters.responsesTotal();
    m.handoversClosed = parts_.handover.closed();
    m.handoversFailed = parts_.handover.failed();
    m.commands = parts_.runner.toolCounts();
    m.errorLogLines = shared.errorLogLines.load(std::memory_order_relaxed);
    if (const auto usage = platform.fileSystemUsage("/ramcache/zarvent")) {
        m.ramDiskFreeBytes = usage->freeBlocks * usage->blockSize;
        m.ramDiskFreeInodes = usage->freeInodes;
    }
    m.chartFiles = parts_.steering.chartFiles();
    m.startTime = shared.startTime.load();
    m.lastCycle = second;
    writeMetrics(platform, m);
}

bool CycleLoop::poll()
{
    if (pulse_.read() != 0 && armed_) {
        runCycle();
        armed_ = false;
        return true;
    }
    // An armed cycle stays armed whatever a second read shows, so the second
    // read is needed only while waiting for the line to fall.
    if (!armed_ && pulse_.read() == 0)
        armed_ = true;
    return false;
}

void CycleLoop::run()
{
    setup();
    while (!parts_.platform.stopRequested()) {
        poll();
        progress_.fetch_add(1, std::memory_order_relaxed);
        parts_.platform.sleepMicroseconds(kPollMicroseconds);
    }
}

} // namespace zarvent
