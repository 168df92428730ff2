// The GPS antenna feed: the current-detect line (bit 0, 0 "Off"), the
// short-detect line (bit 1, 0 "Short") and the feed line as driven (bit 2)
// make the antenna code for the status page; the antenna indicator shows it;
// a short switches the feed off and on again once it has lasted more than 4
// seconds.
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
    bool heldOff_ = false;       // the feed is held off after a short
    std::int64_t heldSince_ = 0; // when it was switched off, in whole seconds
};

} // namespace zarvent
