#include "cycle/cycle_loop.h"

#include "hardware/board_map.h"
#include "hardware/dac.h"
#include "ntp/ntp_queries.h"
#include "platform/platform.h"
#include "state/shared_state.h"
#include "statistics/metrics_file.h"

namespace zarvent {

namespace {
constexpr unsigned kPollMicroseconds = 500;
} // namespace

CycleLoop::CycleLoop(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers, Dac &dac,
                     SharedState &shared)
    : platform_(platform), runner_(runner), gpio_(gpio), dac_(dac), shared_(shared),
      capture_(platform, runner, registers), counters_(platform, registers, capture_),
      relay_(registers), client_(platform, gpio, registers), handover_(runner, registers, shared),
      offset_(registers), qualification_(runner, registers), page_(platform, runner, shared),
      steering_(platform, registers, dac), pulse_(platform, pin::kPulse), local_(shared.cycleTime())
{}

void CycleLoop::setup()
{
    gpio_.exportPin(pin::kPulse);
    gpio_.setDirectionIn(pin::kPulse);
    gpio_.setEdge(pin::kPulse, "rising"); // set, but the thread polls the level
    if (const auto start = readNtptime(runner_))
        shared_.setEvent(start->dateTime);
    // The DAC's lines belong to this thread alone, so that no other thread's
    // set-up can drive its select line in the middle of a word.
    dac_.configureLines();
    steering_.sendDefaults();
}

CycleTime CycleLoop::timeOfThisCycle()
{
    CycleTime time;
    time.unixSecond = cycleSecond(platform_.realtimeNs());
    if (const auto local = platform_.localTime(time.unixSecond))
        local_ = *local;
    time.local = local_;
    // The supervision loop stamps its error-log lines with it.
    shared_.setCycleTime(local_);
    return time;
}

void CycleLoop::runCycle()
{
    const CycleTime time = timeOfThisCycle();
    counters_.readCounters(time);
    relay_.acknowledge(time.unixSecond);
    client_.switchOff();
    client_.flashOnResponses();
    const auto reading = readNtptime(runner_);
    if (reading)
        now_ = reading->dateTime;
    // The hand-over needs this cycle's own reading of the time: without it
    // there is no count to hand over.
    if (qualification_.steeringEnabled() && reading)
        if (const auto later = handover_.handOver(*reading))
            now_ = later->dateTime;
    const OffsetReading offset = offset_.readOffset();
    qualification_.qualify();
    PageInput page;
    page.time = time;
    page.now = splitDateTime(now_);
    page.offsetNs = offsetAsShown(offset.offsetNs);
    page.blockJitterNs = offset.blockJitterNs;
    page.steering = qualification_.steeringEnabled();
    page_.write(page, counters_.history());
    // Asked again: the qualification of this cycle counts in this cycle.
    if (qualification_.steeringEnabled())
        steering_.steer(page.offsetNs, time);
    writeMetricsFile(time.unixSecond);
}

void CycleLoop::writeMetricsFile(std::int64_t second)
{
    MetricsSnapshot m;
    const StatusPage::Shown &shown = page_.shown();
    m.offsetNs = shown.offset;
    m.meanOffsetNs = shown.mean;
    m.jitterNs = shown.jitter;
    m.gpsEmulation = shown.emulation;
    m.steering = qualification_.steeringEnabled();
    m.dacCode = steering_.codeSent();
    m.validCycles = qualification_.validCycles();
    m.reference = shared_.reference;
    m.alarm = shared_.alarm;
    m.antennaCode = shared_.antennaCode;
    m.ptpRequests = counters_.requestsTotal();
    m.ptpResponses = counters_.responsesTotal();
    m.handoversClosed = handover_.closed();
    m.handoversFailed = handover_.failed();
    m.commands = runner_.toolCounts();
    m.errorLogLines = shared_.errorLogLines.load(std::memory_order_relaxed);
    if (const auto usage = platform_.fileSystemUsage("/ramcache/zarvent")) {
        m.ramDiskFreeBytes = usage->freeBlocks * usage->blockSize;
        m.ramDiskFreeInodes = usage->freeInodes;
    }
    m.chartFiles = steering_.chartFiles();
    m.startTime = shared_.startTime.load();
    m.lastCycle = second;
    writeMetrics(platform_, m);
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
    while (!platform_.stopRequested()) {
        poll();
        progress_.fetch_add(1, std::memory_order_relaxed);
        platform_.sleepMicroseconds(kPollMicroseconds);
    }
}

} // namespace zarvent
