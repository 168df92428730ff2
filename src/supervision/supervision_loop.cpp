#include "supervision/supervision_loop.h"

#include "hardware/board_map.h"
#include "hardware/gpio.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "ntp/ntp_queries.h"
#include "platform/files.h"
#include "platform/platform.h"
#include "supervision/leap.h"

namespace zarvent {

void SupervisionLoop::setup()
{
    for (const GpioPin line :
         {pin::kClientOff, pin::kClientOn, pin::kReferenceA, pin::kReferenceB, pin::kAntennaBad,
          pin::kAntennaGood, pin::kAlarmOn, pin::kAlarmOff, pin::kFactoryIndicator}) {
        gpio_.exportPin(line);
        gpio_.setDirectionOut(line);
    }
    for (const GpioPin line :
         {pin::kIndicatorTest, pin::kAntennaOpen, pin::kAntennaShort, pin::kFactoryButton}) {
        gpio_.exportPin(line);
        gpio_.setDirectionIn(line);
    }
    // The DAC's three lines are the cycle thread's: it configures
    // them itself before its first DAC word.
    shared_.taiOffset = readTaiOffset(platform_, runner_);
    if (shared_.taiOffset == -1)
        platform_.writeError("zarvent: TAI-UTC is unknown (/leap-seconds.list or the scratch "
                             "file temp could not be read): the seconds counts handed to the "
                             "FPGA are on the UTC scale\n");
}

void SupervisionLoop::logReference(Reference reference)
{
    // The stamp is the time of the latest cycle. An error log that cannot be
    // opened loses the line; the loop goes on.
    const std::tm t = shared_.cycleTime();
    const auto size = platform_.fileSize(errorlog::kPath);
    if (size && *size >= errorlog::kLimit)
        platform_.renameFile(errorlog::kPath, errorlog::kPrevious);
    OutputFile log(platform_, errorlog::kPath, OutputFile::Mode::Append);
    if (!log.isOpen())
        return;
    log.write(formatText("%02d.%02d %02d:%02d:%02d ", t.tm_mday, t.tm_mon + 1, t.tm_hour, t.tm_min,
                         t.tm_sec));
    log.write(std::string("Reference time: ") + referenceName(reference) + "\n");
    if (log.close())
        shared_.errorLogLines.fetch_add(1, std::memory_order_relaxed);
}

bool SupervisionLoop::followReference()
{
    const Reference current = reference_.ask();
    switch (current) {
    case Reference::SystemPeer:
        gpio_.echoLevel(pin::kReferenceA, 1);
        gpio_.echoLevel(pin::kReferenceB, 1);
        break;
    case Reference::PpsPeer:
        gpio_.echoLevel(pin::kReferenceA, 0);
        gpio_.echoLevel(pin::kReferenceB, 1);
        break;
    case Reference::None:
    case Reference::NotYetAsked:
        gpio_.echoLevel(pin::kReferenceA, 1);
        gpio_.echoLevel(pin::kReferenceB, 0);
        break;
    }
    shared_.reference = current;
    if (current != previousReference_)
        logReference(current);
    previousReference_ = current;
    return current != Reference::None;
}

void SupervisionLoop::pass()
{
    const bool followed = followReference();
    // The reference-valid bit of register 2; a failed read is not written back.
    if (followed)
        registers_.modifyControl(fpga::kReferenceValidBit, 0, PipeMode::Read);
    else
        registers_.modifyControl(0, fpga::kReferenceValidBit, PipeMode::Read);
    alarm_.check();
    antenna_.check();
    factory_.restoreOnPress();
    // The indicator test, held while its input reads 0. A line that cannot be
    // read is not a test request: a board without it would hold this loop
    // for good.
    while (gpio_.readLevel(pin::kIndicatorTest) == 0 && !platform_.stopRequested()) {
        for (const GpioPin line :
             {pin::kReferenceA, pin::kReferenceB, pin::kAntennaBad, pin::kAntennaGood,
              pin::kAlarmOn, pin::kAlarmOff, pin::kClientOff, pin::kClientOn})
            gpio_.echoLevel(line, 1);
        progress_.fetch_add(1, std::memory_order_relaxed);
    }
}

void SupervisionLoop::run()
{
    setup();
    runner_.run("adjtimex -t 10082", PipeMode::Read);
    while (!platform_.stopRequested()) {
        pass();
        progress_.fetch_add(1, std::memory_order_relaxed);
        platform_.sleepSeconds(3);
    }
}

} // namespace zarvent
