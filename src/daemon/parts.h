// Every part of the daemon, made once and wired here: the parts take
// references to the ones they use, in the order of the members below.
#pragma once

#include "cycle/client.h"
#include "cycle/handover.h"
#include "cycle/offset.h"
#include "cycle/relay.h"
#include "cycle/steering.h"
#include "hardware/dac.h"
#include "hardware/gpio.h"
#include "hardware/registers.h"
#include "hardware/runner.h"
#include "state/shared_state.h"
#include "statistics/capture.h"
#include "statistics/counters.h"
#include "statistics/status_page.h"
#include "supervision/alarm.h"
#include "supervision/antenna.h"
#include "supervision/factory.h"

namespace zarvent {

struct Parts {
    explicit Parts(Platform &board)
        : platform(board), runner(board), gpio(board, runner), registers(board, runner),
          dac(board, gpio), capture(board, runner, registers),
          counters(board, registers, shared, capture),
          page(board, runner, shared, counters.history()), relay(registers),
          client(board, gpio, registers), handover(runner, registers, shared),
          offset(runner, registers, shared), steering(board, registers, dac, shared),
          alarm(runner, gpio, registers, shared), antenna(board, gpio, shared),
          factory(board, runner, gpio)
    {}
    Parts(const Parts &) = delete;
    Parts &operator=(const Parts &) = delete;

    Platform &platform;
    SharedState shared;
    // The board.
    Runner runner;
    Gpio gpio;
    Registers registers;
    Dac dac;
    // The cycle's steps.
    StatCapture capture;
    PacketCounters counters;
    StatusPage page;
    RelayReset relay;
    ClientIndicator client;
    TimeHandover handover;
    OffsetReadout offset;
    Steering steering;
    // The supervision's checks.
    AlarmLogic alarm;
    AntennaMonitor antenna;
    FactoryDefault factory;
};

} // namespace zarvent
