// The GPS antenna feed: lines 86 (bit 0, 0 "Off"), 87 (bit 1, 0 "Short") and
// 85 (bit 2, the feed as driven) make the antenna code for the status page;
// indicators 74/75 show it; a short switches the feed (line 85) off and on
// again once it has lasted more than 4 seconds.
#pragma once

#include <cstdint>

namespace zarvent {

class Platform;
class Gpio;
class SharedState;

class AntennaMonitor {
  public:
    AntennaMonitor(Platform &platform, Gpio &gpio, SharedState &shared)
        : platform_(platform), gpio_(gpio), shared_(shared)
    {}

    // One pass's look at the antenna lines.
    void check();

  private:
    Platform &platform_;
    Gpio &gpio_;
    SharedState &shared_;
    bool heldOff_ = false;       // line 85 is held off after a short
    std::int64_t heldSince_ = 0; // when it was switched off, in whole seconds
};

} // namespace zarvent
