#include "supervision/ThreadLED.h"

#include "daemon/files.h"
#include "daemon/shared.h"
#include "hardware/gpio_work.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "platform/platform.h"
#include "supervision/alarm.h"
#include "supervision/antenna.h"
#include "supervision/factory.h"
#include "supervision/leap.h"

namespace zarvent {

bool ControlRefclock(Runner &runner)
{
    return runner.hasOutput("ntpq -p | grep '*G'");
}

bool ControlRefPPS(Runner &runner)
{
    return runner.hasOutput("ntpq -p | grep 'oG'");
}

SupervisionThread::SupervisionThread(Platform &platform, Runner &runner, Gpio &gpio,
                                     Registers &registers, SharedState &shared)
    : platform_(platform), runner_(runner), gpio_(gpio), registers_(registers), shared_(shared),
      alarm_(std::make_unique<AlarmLogic>(runner, gpio, registers, shared)),
      antenna_(std::make_unique<AntennaMonitor>(platform, gpio, shared)),
      factory_(std::make_unique<FactoryDefault>(platform, runner, gpio))
{}

SupervisionThread::~SupervisionThread() = default;

void SupervisionThread::init_gpio_input()
{
    for (const char *pin : {"70", "71", "72", "73", "74", "75", "76", "77", "78"}) {
        gpio_.PinAddToWorkspace(pin);
        gpio_.PinSetDirectionOut(pin);
    }
    for (const char *pin : {"79", "86", "87", "88"}) {
        gpio_.PinAddToWorkspace(pin);
        gpio_.PinSetDirectionIn(pin);
    }
    // The DAC's lines 96, 106 and 118 are the cycle thread's: it configures
    // them itself before its first DAC word.
    shared_.Leap_Time = Parse_File(platform_, runner_);
}

void SupervisionThread::logReference(const std::string &name)
{
    // The stamp is the time of the latest cycle. An error log that cannot be
    // opened loses the line; the loop goes on.
    const std::tm t = shared_.getTimeinfo();
    const auto size = platform_.fileSize(errorlog::kPath);
    if (size && *size >= errorlog::kLimit)
        platform_.renameFile(errorlog::kPath, errorlog::kPrevious);
    OutputFile log(platform_, errorlog::kPath, OutputFile::Mode::Append);
    if (!log.isOpen())
        return;
    log.write(formatText("%02d.%02d %02d:%02d:%02d ", t.tm_mday, t.tm_mon + 1, t.tm_hour, t.tm_min,
                         t.tm_sec));
    log.write("Reference time: " + name + "\n");
    if (log.close())
        shared_.errorLogLines.fetch_add(1, std::memory_order_relaxed);
}

bool SupervisionThread::referenceStep()
{
    const char *name;
    bool followed = true;
    if (ControlRefclock(runner_)) {
        gpio_.echoLevel(72, 1);
        gpio_.echoLevel(73, 1);
        name = "GPS+GLONASS";
    } else if (ControlRefPPS(runner_)) {
        gpio_.echoLevel(72, 0);
        gpio_.echoLevel(73, 1);
        name = "GPS+GLONASS 1PPS";
    } else {
        gpio_.echoLevel(72, 1);
        gpio_.echoLevel(73, 0);
        name = "NULL";
        followed = false;
    }
    shared_.put(co::kRefName, std::string_view(name, std::char_traits<char>::length(name) + 1));
    shared_.setByte(co::kRefName + 17, 0);

    const std::string current = shared_.text(co::kRefName, co::kNameField);
    const std::string previous = shared_.text(co::kRefPrev, co::kNameField - 1);
    if (previous != current)
        logReference(current);
    shared_.put(co::kRefPrev, shared_.get(co::kRefName, co::kNameField));
    return followed;
}

void SupervisionThread::pass()
{
    const bool followed = referenceStep();
    // The reference-valid bit of register 2; a failed read is not written back.
    if (followed)
        registers_.modifyRegister2(1, 0, PipeMode::Read);
    else
        registers_.modifyRegister2(0, 1, PipeMode::Read);

    alarm_->ControlAlarm();
    antenna_->ControlAntenna();
    factory_->NtpDefault();

    // The indicator test, held while line 79 reads 0. A line that cannot be
    // read is not a test request: a board without it would hold this loop
    // for good.
    while (gpio_.readLevel("79") == 0 && !platform_.stopRequested()) {
        for (int line : {72, 73, 74, 75, 76, 77, 70, 71})
            gpio_.echoLevel(line, 1);
        progress_.fetch_add(1, std::memory_order_relaxed);
    }
}

void SupervisionThread::ThreadSrvLED()
{
    init_gpio_input();
    runner_.run("adjtimex -t 10082", PipeMode::Read);
    while (!platform_.stopRequested()) {
        pass();
        progress_.fetch_add(1, std::memory_order_relaxed);
        platform_.sleepSeconds(3);
    }
}

} // namespace zarvent
