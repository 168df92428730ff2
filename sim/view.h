// The demo's screen: what the appliance's web interface would show, redrawn
// once per board second from the simulated board's files and lines and the
// daemon's state.
#pragma once

#include <string>

#include "scenario.h"

namespace zarvent::sim {

class View {
  public:
    View(std::string outDir, std::string scenario, double pace);
    // Redraws the screen (an eachSecond callback of runScenario).
    void second(const SecondView &view) const;

  private:
    std::string outDir_;
    std::string scenario_;
    double pace_;
};

} // namespace zarvent::sim
