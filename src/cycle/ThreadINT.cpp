#include "cycle/ThreadINT.h"

#include "cycle/client.h"
#include "cycle/handover.h"
#include "cycle/offset.h"
#include "cycle/relay.h"
#include "cycle/steering.h"
#include "daemon/shared.h"
#include "hardware/dac.h"
#include "platform/platform.h"
#include "statistics/capture.h"
#include "statistics/counters.h"
#include "statistics/metrics_file.h"
#include "statistics/status_page.h"

namespace zarvent {

namespace {
constexpr unsigned kPollMicroseconds = 500;
} // namespace

std::int64_t cycleSecond(std::int64_t realtimeNs)
{
    constexpr std::int64_t kSecond = 1'000'000'000;
    return (realtimeNs + kSecond / 2) / kSecond;
}

CycleThread::CycleThread(Platform &platform, Runner &runner, Gpio &gpio, Registers &registers,
                         Dac &dac, SharedState &shared)
    : platform_(platform), runner_(runner), gpio_(gpio), dac_(dac), shared_(shared),
      pulse_(platform, "19"), capture_(std::make_unique<StatCapture>(platform, runner, registers)),
      counters_(std::make_unique<PacketCounters>(platform, registers, shared, *capture_)),
      page_(std::make_unique<StatusPage>(platform, runner, shared)),
      relay_(std::make_unique<RelayReset>(registers)),
      client_(std::make_unique<ClientIndicator>(platform, gpio, registers)),
      handover_(std::make_unique<TimeHandover>(runner, shared)),
      offset_(std::make_unique<OffsetReadout>(runner, registers, shared)),
      steering_(std::make_unique<Steering>(platform, registers, dac, shared))
{}

CycleThread::~CycleThread() = default;

void CycleThread::setup()
{
    gpio_.PinAddToWorkspace("19");
    gpio_.PinSetDirectionIn("19");
    gpio_.GpioSetEdge(19, "rising"); // set, but the thread polls the level
    ControlTime(runner_, shared_, co::kEvent);
    // The DAC's lines belong to this thread alone, so that no other thread's
    // set-up can drive its select line in the middle of a word.
    dac_.configureLines();
    steering_->DAC_DEFAULTS();
}

void CycleThread::runCycle()
{
    const std::int64_t second = cycleSecond(platform_.realtimeNs());
    counters_->Stat_read(second);
    relay_->Relay_Reset(second);
    client_->Service();
    client_->ReadNtpCli();
    const auto now = ControlTime(runner_, shared_, co::kNow);
    // The hand-over needs this cycle's own reading of the time: without it
    // there is no count to hand over.
    if (shared_.Sync_En != 0 && now)
        handover_->Send_Time(*now);
    offset_->ControlOffset();
    offset_->Nav_Parse();
    page_->FileWrite();
    // Read again: the qualification of this cycle counts in this cycle.
    if (shared_.Sync_En != 0) {
        dac_.SPIWriteInt(4, 2048);
        steering_->Calculate_offset();
    }
    writeMetricsFile(second);
}

void CycleThread::writeMetricsFile(std::int64_t second)
{
    MetricsSnapshot m;
    const StatusPage::Shown &shown = page_->shown();
    m.offsetNs = shown.offset;
    m.meanOffsetNs = shown.mean;
    m.jitterNs = shown.jitter;
    m.gpsEmulation = shown.emulation;
    m.steering = shared_.Sync_En != 0;
    m.dacCode = steering_->codeSent();
    m.validCycles = offset_->validCycles();
    m.reference = referenceState(shared_.text(co::kRefName, co::kNameField - 1));
    m.alarm = shared_.Alarm != 0;
    m.antennaCode = shared_.byte(co::kAntenna);
    m.ptpRequests = counters_->requestsTotal();
    m.ptpResponses = counters_->responsesTotal();
    m.handoversClosed = handover_->closed();
    m.handoversFailed = handover_->failed();
    m.commands = runner_.toolCounts();
    m.errorLogLines = shared_.errorLogLines.load(std::memory_order_relaxed);
    if (const auto usage = platform_.fileSystemUsage("/ramcache/zarvent")) {
        m.ramDiskFreeBytes = usage->freeBlocks * usage->blockSize;
        m.ramDiskFreeInodes = usage->freeInodes;
    }
    m.chartFiles = steering_->chartFiles();
    m.startTime = shared_.startTime.load();
    m.lastCycle = second;
    writeMetrics(platform_, m);
}

bool CycleThread::poll()
{
    if (pulse_.read() != 0 && first_f != 0) {
        runCycle();
        first_f = 0;
        return true;
    }
    // An armed cycle stays armed whatever a second read shows, so the second
    // read is needed only while waiting for the line to fall.
    if (first_f == 0 && pulse_.read() == 0)
        first_f = 1;
    return false;
}

void CycleThread::ThreadSrvINT()
{
    setup();
    while (!platform_.stopRequested()) {
        poll();
        progress_.fetch_add(1, std::memory_order_relaxed);
        platform_.sleepMicroseconds(kPollMicroseconds);
    }
}

} // namespace zarvent
