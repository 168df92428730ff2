// The board around the daemon, on top of the virtual board: the oscillator
// the DAC pulls, the FPGA's phase measurement, packet counters, event flags
// and time hand-over check, ntpd's reference and the receiver, the input
// lines, and the scenario's faults. Everything runs in virtual time from one
// seeded random sequence, so a scenario and a seed give the same run.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "virtual_board.h"

namespace zarvent::sim {

struct BoardConfig {
    std::uint32_t seed = 1;
    // An OCXO pulled about +-0.4 ppm across the DAC range: ns/s of frequency
    // per DAC code; a higher code makes the offset fall.
    double gain = 0.012;
    int naturalCode = 33000;       // the code at which the oscillator is on frequency
    double noiseNs = 2.0;          // white phase noise of each measurement (standard deviation)
    double initialOffset = 2500.0; // ns
    // The oscillator's own wander (all 0: a perfectly stable oscillator whose
    // frequency only the DAC moves). Frequencies in ppb, that is ns of phase
    // per second.
    double randomWalkPpb = 0;          // random-walk frequency noise: a step of this
                                       // standard deviation every second
    double temperaturePpb = 0;         // amplitude of the daily temperature cycle
    double ageingPpbPerDay = 0;        // linear frequency drift
    std::string oscillator;            // the preset it started from ("ocxo", "tcxo"), if any
    std::int64_t pulseHighUs = 100000; // the high part of every second on line 19
    int requests = 40;                 // PTP packets per second (mean)
    int responses = 40;
};

struct BoardStats {
    int handoversOpen = 0;     // register 10 written
    int handoversAccepted = 0; // register 11 closed with the right seconds count
    int handoversRejected = 0; // closed with a wrong count
    std::int64_t lastAcceptedUs = 0;
    int dacWords = 0;
    int dacMalformed = 0;
    int lastDacCode = 0;
    double offsetNs = 0;       // the oscillator's true offset now
    int eventAcks[2] = {0, 0}; // acknowledgements of event flags 1 and 2
    // The last phase measurement the daemon read from register 14: its board
    // second (-1: none yet) and the offset the daemon makes of it.
    std::int64_t phaseSecond = -1;
    double phaseReadNs = 0;
};

// Oscillator presets by name: "ocxo" and "tcxo". False for another name.
bool applyOscillatorPreset(const std::string &name, BoardConfig &config);

class BoardModel {
  public:
    // Installs the model on a fresh board: register hooks, lines, files.
    BoardModel(VirtualBoard &board, const BoardConfig &config);
    ~BoardModel();
    BoardModel(const BoardModel &) = delete;
    BoardModel &operator=(const BoardModel &) = delete;

    // Applies one scenario command (the words after "at T"); the reason when
    // it is not understood.
    std::optional<std::string> command(const std::vector<std::string> &words);
    BoardStats stats();
    // PTP requests and responses the daemon read for a board second (-1 when
    // it read none).
    std::pair<int, int> ptpCounts(std::int64_t second);
    // Drops what the logs would show so far (commands, levels, DAC words,
    // counter readings, hand-overs) after taking in the DAC words: a run of
    // many board days keeps its memory flat.
    void dropHistory();
    // commands.log, levels.log, dac.log, handover.log, registers.log,
    // counts.log and summary.log of the run so far, into dir.
    bool writeLogs(const std::string &dir);

  private:
    struct CounterReading {
        std::int64_t second;
        int reg;
        std::uint32_t value;
    };
    struct Handover {
        std::int64_t timeUs;
        int number;
        std::uint64_t count;
        std::uint64_t expected;
        bool accepted;
    };

    std::uint32_t nextRandom();
    double gaussian();
    void takeDacWords();
    void integrate();
    std::uint32_t phaseTicks();
    std::uint32_t counterValue(int reg, int mean);
    void onRead(int reg);
    void onWrite(int reg, std::uint64_t value);

    VirtualBoard &board_;
    // The register hooks run on the daemon's threads, the scenario's
    // commands on the run's own.
    std::mutex mutex_;
    BoardConfig config_;
    std::uint32_t random_;
    double offset_;             // ns
    std::int64_t offsetTimeUs_; // time of the last integration
    const std::int64_t startUs_;
    double wanderPpb_ = 0;      // the random walk's frequency so far
    std::int64_t wanderSecond_; // the board second of its last step
    int code_ = 32768;          // the DAC code in force
    std::size_t dacSeen_ = 0;
    int openNumber_ = -1; // written to register 10, -1 when none
    std::uint64_t pendingCount_ = 0;
    bool haveCount_ = false;
    std::uint8_t events_ = 0; // register 28 flags pending
    std::int64_t responsesOverride_ = -1;
    BoardStats stats_;
    std::vector<Handover> handovers_;
    std::vector<CounterReading> readings_;
};

} // namespace zarvent::sim
