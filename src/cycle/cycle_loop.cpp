#include "cycle/cycle_loop.h"

#include <cstdlib>

#include "hardware/board_map.h"
#include "hardware/dac.h"
#include "hardware/registers.h"
#include "ntp/ntp_queries.h"
#include "platform/platform.h"
#include "state/shared_state.h"
#include "statistics/metrics_file.h"

namespace zarvent {

namespace {
constexpr unsigned kPollMicroseconds = 500;
constexpr std::int64_t kSecondNs = 1'000'000'000;
} // namespace

Episode::Change Episode::update(bool present, std::int64_t nowNs)
{
    if (present) {
        lastSeenNs_ = nowNs;
        if (!active_) {
            active_ = true;
            return Change::Began;
        }
    } else if (active_ && nowNs - lastSeenNs_ >= kQuietNs) {
        active_ = false;
        return Change::Ended;
    }
    return Change::None;
}

CycleLoop::CycleLoop(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers, Dac &dac,
                     SharedState &shared)
    : platform_(platform), runner_(runner), gpio_(gpio), registers_(registers), dac_(dac),
      shared_(shared), capture_(platform, runner, registers),
      counters_(platform, registers, capture_), relay_(registers),
      client_(platform, gpio, registers), handover_(runner, registers, shared), offset_(registers),
      qualification_(runner, registers), page_(platform, runner, shared),
      steering_(platform, registers, dac), pulse_(platform, pin::kPulse), local_(shared.cycleTime())
{}

void CycleLoop::say(const std::string &message)
{
    platform_.writeError("zarvent: " + message + "\n");
}

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
    // A board whose pulse never comes is noticed as one whose pulse stopped.
    lastPulseNs_ = platform_.monotonicNs();
}

CycleTime CycleLoop::timeOfThisCycle(std::int64_t realtimeNs)
{
    CycleTime time;
    time.unixSecond = cycleSecond(realtimeNs);
    if (const auto local = platform_.localTime(time.unixSecond))
        local_ = *local;
    time.local = local_;
    // The supervision loop stamps its error-log lines with it.
    shared_.setCycleTime(local_);
    return time;
}

void CycleLoop::checkKernelClock(const NtptimeAnswer &answer, std::int64_t nowNs)
{
    // Neither stops the hand-over: a board whose ntpd leaves the kernel's
    // status alone would never hand a count over. They are told, once per
    // episode, and shown in the metrics.
    if (answer.code) {
        kernelSynchronised_ = *answer.code != kClockUnsynchronised;
        switch (kernelUnsynchronised_.update(!*kernelSynchronised_, nowNs)) {
        case Episode::Change::Began:
            say("ntptime reports the kernel clock unsynchronised");
            break;
        case Episode::Change::Ended:
            say("ntptime reports the kernel clock synchronised again");
            break;
        case Episode::Change::None:
            break;
        }
    }
    if (answer.kernelTaiOffset) {
        kernelTaiOffset_ = answer.kernelTaiOffset;
        // 0 is a kernel whose TAI offset nobody set: no doubt can come of it.
        const std::int32_t inUse = shared_.taiOffset.load();
        const bool differ = *kernelTaiOffset_ != 0 && *kernelTaiOffset_ != inUse;
        switch (taiOffsetsDiffer_.update(differ, nowNs)) {
        case Episode::Change::Began:
            say("the kernel's TAI offset (" + std::to_string(*kernelTaiOffset_) +
                " s) differs from the leap-second list's (" + std::to_string(inUse) + " s)");
            break;
        case Episode::Change::Ended:
            say("the kernel's TAI offset agrees with the leap-second list's again");
            break;
        case Episode::Change::None:
            break;
        }
    }
}

void CycleLoop::runCycle()
{
    // The clock taken at the pulse: the cycle's second, and how far from the
    // top of a second the clock says the pulse came.
    const std::int64_t realtime = platform_.realtimeNs();
    const CycleTime time = timeOfThisCycle(realtime);
    const std::int64_t offTopNs = realtime - time.unixSecond * kSecondNs;
    const bool clockAgrees = std::llabs(offTopNs) <= kClockAgreesNs;
    lastSecond_ = time.unixSecond;

    counters_.readCounters(time);
    relay_.acknowledge(time.unixSecond);
    client_.switchOff();
    client_.flashOnResponses();
    const std::int64_t nowNs = platform_.monotonicNs();
    const NtptimeAnswer answer = askNtptime(runner_);
    checkKernelClock(answer, nowNs);
    if (answer.reading)
        now_ = answer.reading->dateTime;
    // The hand-over needs this cycle's own reading of the time: without it
    // there is no count to hand over. Nor is there one when the clock
    // disagrees with the pulse (a boot before ntpd stepped the clock, a clock
    // stepped by hand): the count would name the wrong second. Steering goes
    // on: it follows the FPGA's phase, not the clock.
    if (qualification_.steeringEnabled() && answer.reading) {
        if (clockAgrees) {
            if (const auto later = handover_.handOver(*answer.reading))
                now_ = later->dateTime;
        } else {
            ++handoversSkipped_;
            ++skippedInEpisode_;
        }
    }
    switch (clockOff_.update(!clockAgrees, nowNs)) {
    case Episode::Change::Began:
        say("the clock read at the pulse lies " + std::to_string(offTopNs / 1'000'000) +
            " ms from the top of a second: no seconds count goes to the FPGA while it "
            "disagrees");
        break;
    case Episode::Change::Ended:
        say("the clock has agreed with the pulse for a minute (" +
            std::to_string(skippedInEpisode_) + " hand-overs skipped)");
        skippedInEpisode_ = 0;
        break;
    case Episode::Change::None:
        break;
    }

    const OffsetReading offset = offset_.readOffset();
    offsetMeasured_ = offset.measured;
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
    m.offsetMeasured = offsetMeasured_ && !pulseLost_;
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
    m.handoversSkipped = handoversSkipped_;
    m.pulse = !pulseLost_;
    m.fpgaConfigured = shared_.fpgaConfigured;
    m.kernelClockSynchronised = kernelSynchronised_;
    m.kernelTaiOffset = kernelTaiOffset_;
    m.taiOffset = shared_.taiOffset;
    m.commands = runner_.toolCounts();
    m.failedReads = runner_.failedReads();
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

void CycleLoop::watchForThePulse()
{
    const std::int64_t now = platform_.monotonicNs();
    if (!pulseLost_ && now - lastPulseNs_ > kPulseLostNs) {
        // The FPGA lost its configuration, the line is gone, a cable: no
        // cycle runs, so nothing would take back what the last one claimed.
        pulseLost_ = true;
        say("no pulse from the FPGA for 3 s: steering stopped and the FPGA's sync bit "
            "cleared until pulses return");
        qualification_.withdraw();
    }
    // The metrics stay fresh while no cycle runs, and say why.
    if (pulseLost_ && now - lastMetricsNs_ >= kSecondNs) {
        lastMetricsNs_ = now;
        writeMetricsFile(lastSecond_);
    }
}

bool CycleLoop::poll()
{
    if (pulse_.read() != 0 && armed_) {
        if (pulseLost_) {
            pulseLost_ = false;
            say("the FPGA's pulse is back after " +
                std::to_string((platform_.monotonicNs() - lastPulseNs_) / kSecondNs) +
                " s; steering starts again once the receiver has qualified");
        }
        runCycle();
        armed_ = false;
        // The line is not looked at while a cycle runs: a cycle held up by a
        // slow tool missed the pulses of its time, it did not see none.
        lastPulseNs_ = platform_.monotonicNs();
        return true;
    }
    // An armed cycle stays armed whatever a second read shows, so the second
    // read is needed only while waiting for the line to fall.
    if (!armed_ && pulse_.read() == 0)
        armed_ = true;
    watchForThePulse();
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

void CycleLoop::releaseClaims()
{
    registers_.releaseClaims(relay_.bitsInFlight());
    removeMetrics(platform_);
}

} // namespace zarvent
