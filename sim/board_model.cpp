#include "board_model.h"

#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "text.h"

namespace zarvent::sim {

namespace {

// Whole text as an integer in C notation (decimal, 0x hex, 0 octal).
std::optional<long> parseInt(const std::string &text)
{
    char *end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 0);
    if (end == text.c_str() || *end != '\0')
        return std::nullopt;
    return value;
}

bool writeLog(const std::string &dir, const char *name, const std::string &text)
{
    std::ofstream out(dir + "/" + name, std::ios::binary | std::ios::trunc);
    out << text;
    return static_cast<bool>(out);
}

} // namespace

BoardModel::BoardModel(VirtualBoard &board, const BoardConfig &config)
    : board_(board), config_(config), random_(config.seed != 0 ? config.seed : 1),
      offset_(config.initialOffset), offsetTimeUs_(board.clock().nowUs()),
      startUs_(board.clock().nowUs()), wanderSecond_(board.clock().nowUs() / 1000000)
{
    board_.fpga().setRegisterHooks([this](int reg) { onRead(reg); },
                                   [this](int reg, std::uint64_t value) { onWrite(reg, value); });
    board_.fpga().setConfigured(false); // it answers once wrFPGA has loaded the bitstream
    board_.fpga().setRegister(2, 0x00);
    board_.fpga().setRegister(48, 0x10);
    board_.gpio().setPulse(19, config.pulseHighUs);
    board_.gpio().provideLine(19, false, 0);
    // Inputs the supervision exports: their levels when exported.
    for (const int line : {79, 86, 87, 88})
        board_.gpio().provideLine(line, false, 1);
    board_.gpio().provideLine(85, true, 1);
    board_.gpio().provideLine(176, false, 1);
    board_.files().writeFile("/usr/bin/Zarvent/dac_voltage", "33000\n");
    board_.files().writeFile("/usr/bin/Zarvent/enable.cfg", "0\n");
    board_.files().writeFile("/usr/bin/Zarvent/nmea_emul_flag.txt", "0\n");
    board_.files().writeFile("/usr/bin/Zarvent/defcnfg", "server 127.127.20.0 mode 1 prefer\n");
    board_.files().writeFile("/usr/bin/Zarvent/resolv.conf", "nameserver 192.168.2.1\n");
    board_.files().writeFile("/usr/bin/Zarvent/interfaces", "auto eth0\niface eth0 inet static\n");
    board_.files().writeFile("/etc/ntp.conf", "server 127.127.20.0 mode 17\n");
    board_.files().writeFile("/etc/resolv.conf", "nameserver 10.0.0.1\n");
    board_.files().writeFile("/etc/network/interfaces", "auto eth0\niface eth0 inet dhcp\n");
    board_.files().writeFile("/leap-seconds.list",
                             "#\tleap-seconds.list (abridged)\n#$\t3676924800\n"
                             "2272060800\t10\t# 1 Jan 1972\n3644697600\t36\t# 1 Jul 2015\n"
                             "3692217600\t37\t# 1 Jan 2017\n#@\t3928521600\n#h\t0 0 0 0 0\n");
    std::array<std::uint8_t, 1410> reply{};
    for (std::uint8_t &byte : reply)
        byte = static_cast<std::uint8_t>(nextRandom() >> 24);
    board_.spi().setReply(reply);
}

BoardModel::~BoardModel()
{
    board_.fpga().setRegisterHooks({}, {});
}

std::uint32_t BoardModel::nextRandom()
{
    // xorshift32: the same sequence for a seed on every architecture.
    std::uint32_t x = random_;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    random_ = x;
    return x;
}

double BoardModel::gaussian()
{
    // The sum of 12 uniforms: close enough to normal, and exact everywhere.
    double sum = 0;
    for (int i = 0; i < 12; i++)
        sum += (nextRandom() >> 8) * (1.0 / 16777216.0);
    return sum - 6.0;
}

// The DAC words sent since the last look: command 3 sets the code.
void BoardModel::takeDacWords()
{
    for (const DacWord &word : board_.gpio().dacWords(dacSeen_)) {
        dacSeen_++;
        stats_.dacWords++;
        if (word.malformed) {
            stats_.dacMalformed++;
            continue;
        }
        if ((word.word >> 20) == 3) {
            code_ = static_cast<int>((word.word >> 4) & 0xFFFF);
            stats_.lastDacCode = code_;
        }
    }
}

bool applyOscillatorPreset(const std::string &name, BoardConfig &config)
{
    if (name == "ocxo") {
        // An oven oscillator: the DAC pulls it about +-0.4 ppm; it wanders by
        // about 1e-12 per second, follows the room's daily cycle by +-0.2 ppb
        // and ages 0.3 ppb a day. The receiver's pulse and the phase meter
        // add a few ns of white phase noise to each measurement.
        config.gain = 0.012;
        config.naturalCode = 33100;
        config.noiseNs = 4.0;
        config.randomWalkPpb = 0.001;
        config.temperaturePpb = 0.2;
        config.ageingPpbPerDay = 0.3;
    } else if (name == "tcxo") {
        // A temperature-compensated crystal: pulled about +-5 ppm, a random
        // walk ten times the oven's, +-10 ppb over the day from what the
        // compensation leaves of the room's cycle, 3 ppb a day of ageing.
        config.gain = 0.15;
        config.naturalCode = 33400;
        config.noiseNs = 4.0;
        config.randomWalkPpb = 0.01;
        config.temperaturePpb = 10.0;
        config.ageingPpbPerDay = 3.0;
    } else {
        return false;
    }
    config.oscillator = name;
    return true;
}

// The offset up to now: a higher code makes it fall; the oscillator's own
// wander makes it drift.
void BoardModel::integrate()
{
    takeDacWords();
    const std::int64_t now = board_.clock().nowUs();
    if (now > offsetTimeUs_) {
        const double dt = static_cast<double>(now - offsetTimeUs_) / 1e6;
        offset_ -= config_.gain * static_cast<double>(code_ - config_.naturalCode) * dt;
        if (config_.randomWalkPpb != 0 || config_.temperaturePpb != 0 ||
            config_.ageingPpbPerDay != 0) {
            // The random walk steps once a board second, however the reads
            // fall; temperature and ageing at the middle of the interval.
            for (; wanderSecond_ < now / 1000000; wanderSecond_++)
                wanderPpb_ += config_.randomWalkPpb * gaussian();
            const std::int64_t middleUs = (offsetTimeUs_ + now) / 2;
            const double days = static_cast<double>(middleUs - startUs_) / 86400e6;
            const double ppb = wanderPpb_ +
                               config_.temperaturePpb * std::sin(2 * 3.14159265358979 * days) +
                               config_.ageingPpbPerDay * days;
            offset_ += ppb * dt;
        }
        offsetTimeUs_ = now;
    }
    stats_.offsetNs = offset_;
}

// Register 14: the phase of the last pulse in 10 ns ticks.
std::uint32_t BoardModel::phaseTicks()
{
    const double measured = offset_ + config_.noiseNs * gaussian();
    double ns = std::fmod(-measured, 1e9);
    if (ns < 0)
        ns += 1e9;
    const auto ticks = static_cast<std::uint32_t>(ns / 10.0);
    // What the daemon makes of it: the phase folded to +-0.5 s.
    const double phase = ticks * 10.0;
    stats_.phaseSecond = board_.clock().nowUs() / 1000000;
    stats_.phaseReadNs = phase > 5e8 ? 1e9 - phase : 0.0 - phase;
    return ticks;
}

// A counter's value for the current second, drawn once: the capture step
// reads the counters again within the second and must see the same.
std::uint32_t BoardModel::counterValue(int reg, int mean)
{
    const std::int64_t second = board_.clock().nowUs() / 1000000;
    for (std::size_t i = readings_.size(); i-- > 0 && readings_[i].second == second;)
        if (readings_[i].reg == reg)
            return readings_[i].value;
    const int v = mean + static_cast<int>(nextRandom() % 5) - 2;
    auto value = static_cast<std::uint32_t>(v < 0 ? 0 : v);
    if (reg == 26 && responsesOverride_ >= 0)
        value = static_cast<std::uint32_t>(responsesOverride_);
    readings_.push_back({second, reg, value});
    return value;
}

void BoardModel::onRead(int reg)
{
    const std::lock_guard lock(mutex_);
    switch (reg) {
    case 14:
        integrate();
        board_.fpga().setRegister(14, phaseTicks());
        break;
    case 24:
        board_.fpga().setRegister(24, counterValue(24, config_.requests));
        break;
    case 26:
        board_.fpga().setRegister(26, counterValue(26, config_.responses));
        break;
    case 28:
        board_.fpga().setRegister(28, events_);
        break;
    default:
        break;
    }
}

void BoardModel::onWrite(int reg, std::uint64_t value)
{
    const std::lock_guard lock(mutex_);
    switch (reg) {
    case 10:
        openNumber_ = static_cast<int>(value);
        haveCount_ = false;
        stats_.handoversOpen++;
        break;
    case 3:
        pendingCount_ = value;
        haveCount_ = true;
        break;
    case 11: {
        // The count must be the seconds of the next pulse on the TAI scale:
        // Unix seconds + 1 + TAI-UTC (37).
        const std::int64_t now = board_.clock().nowUs();
        const auto expected = static_cast<std::uint64_t>(now / 1000000) + 1 + 37;
        const bool ok =
            openNumber_ == static_cast<int>(value) && haveCount_ && pendingCount_ == expected;
        handovers_.push_back({now, static_cast<int>(value), pendingCount_, expected, ok});
        if (ok) {
            stats_.handoversAccepted++;
            stats_.lastAcceptedUs = now;
        } else {
            stats_.handoversRejected++;
        }
        openNumber_ = -1;
        haveCount_ = false;
        break;
    }
    case 2:
        // Bits 1 and 2 acknowledge event flags 1 and 2.
        if (value & 2) {
            events_ &= static_cast<std::uint8_t>(~1u);
            stats_.eventAcks[0]++;
        }
        if (value & 4) {
            events_ &= static_cast<std::uint8_t>(~2u);
            stats_.eventAcks[1]++;
        }
        break;
    default:
        break;
    }
}

std::optional<std::string> BoardModel::command(const std::vector<std::string> &w)
{
    const std::lock_guard lock(mutex_);
    const std::size_t nw = w.size();
    const auto bad = [&] {
        return "unknown or malformed command: " + w[0] + (nw > 1 ? " ..." : "");
    };
    if (nw == 0)
        return std::nullopt;
    if (w[0] == "rmc" && nw == 2 && w[1].size() == 1) {
        board_.ntp().setRmcStatus(w[1][0]);
    } else if (w[0] == "peer" && nw == 2) {
        if (w[1] == "system")
            board_.ntp().setPeer(Peer::System);
        else if (w[1] == "pps")
            board_.ntp().setPeer(Peer::Pps);
        else if (w[1] == "none")
            board_.ntp().setPeer(Peer::None);
        else if (w[1] == "both")
            board_.ntp().setPeer(Peer::Both);
        else
            return bad();
    } else if (w[0] == "gpio" && nw == 3) {
        const auto line = parseInt(w[1]), level = parseInt(w[2]);
        if (!line || !level)
            return bad();
        board_.gpio().setInput(static_cast<int>(*line), static_cast<int>(*level));
    } else if (w[0] == "tool" && nw == 3) {
        board_.tools().setToolAbsent(w[1], w[2] == "absent");
    } else if (w[0] == "regtool" && nw == 2) {
        // Every run of the register tool prints garbage, or too few lines.
        if (w[1] == "garbage")
            board_.fpga().setRegisterToolFault(RegisterToolFault::Garbage);
        else if (w[1] == "short")
            board_.fpga().setRegisterToolFault(RegisterToolFault::Short);
        else if (w[1] == "ok")
            board_.fpga().setRegisterToolFault(RegisterToolFault::None);
        else
            return bad();
    } else if (w[0] == "file" && nw >= 2) {
        std::string text;
        for (std::size_t i = 2; i < nw; i++)
            text += w[i] + (i + 1 < nw ? " " : "\n");
        board_.files().writeFile(w[1], text);
    } else if (w[0] == "event" && nw == 2) {
        const auto flag = parseInt(w[1]);
        if (!flag || *flag < 1 || *flag > 2)
            return bad();
        events_ |= static_cast<std::uint8_t>(1u << (*flag - 1));
    } else if (w[0] == "load" && nw == 3) {
        const auto requests = parseInt(w[1]), responses = parseInt(w[2]);
        if (!requests || !responses)
            return bad();
        config_.requests = static_cast<int>(*requests);
        config_.responses = static_cast<int>(*responses);
    } else if (w[0] == "responses" && nw == 2) {
        const auto responses = parseInt(w[1]);
        if (!responses)
            return bad();
        responsesOverride_ = *responses;
    } else if (w[0] == "offset" && nw == 2) {
        integrate();
        offset_ = std::strtod(w[1].c_str(), nullptr);
    } else if (w[0] == "spi" && nw == 2 && w[1] == "absent") {
        board_.spi().setPresent(false);
    } else {
        return bad();
    }
    return std::nullopt;
}

std::pair<int, int> BoardModel::ptpCounts(std::int64_t second)
{
    const std::lock_guard lock(mutex_);
    std::pair<int, int> counts{-1, -1};
    for (std::size_t i = readings_.size(); i-- > 0 && readings_[i].second >= second;) {
        if (readings_[i].second != second)
            continue;
        (readings_[i].reg == 24 ? counts.first : counts.second) =
            static_cast<int>(readings_[i].value);
    }
    return counts;
}

void BoardModel::dropHistory()
{
    const std::lock_guard lock(mutex_);
    takeDacWords();
    board_.dropHistory();
    dacSeen_ = 0;
    readings_.clear();
    handovers_.clear();
}

BoardStats BoardModel::stats()
{
    const std::lock_guard lock(mutex_);
    integrate();
    return stats_;
}

bool BoardModel::writeLogs(const std::string &dir)
{
    std::error_code error;
    std::filesystem::create_directories(dir, error);
    const std::vector<CommandRecord> commands = board_.tools().commands();
    std::string text;
    for (const CommandRecord &c : commands)
        appendf(text, "%lld.%06lld %s %s\n", static_cast<long long>(c.timeUs / 1000000),
                static_cast<long long>(c.timeUs % 1000000), c.mode == PipeMode::Read ? "r" : "w",
                c.line.c_str());
    if (!writeLog(dir, "commands.log", text))
        return false;

    text.clear();
    for (const LevelRecord &l : board_.gpio().levels())
        appendf(text, "%lld.%06lld %d %d%s\n", static_cast<long long>(l.timeUs / 1000000),
                static_cast<long long>(l.timeUs % 1000000), l.line, l.level,
                l.byShell ? " shell" : "");
    bool ok = writeLog(dir, "levels.log", text);

    text.clear();
    for (const DacWord &d : board_.gpio().dacWords()) {
        if (d.malformed)
            appendf(text, "%lld malformed bits=%d\n", static_cast<long long>(d.timeUs / 1000000),
                    d.bits);
        else
            appendf(text, "%lld %06X cmd=%u value=%u\n", static_cast<long long>(d.timeUs / 1000000),
                    d.word, d.word >> 20, (d.word >> 4) & 0xFFFF);
    }
    ok = writeLog(dir, "dac.log", text) && ok;

    const std::lock_guard lock(mutex_);
    text.clear();
    for (const Handover &h : handovers_)
        appendf(text, "%lld number=%d count=%llu expected=%llu %s\n",
                static_cast<long long>(h.timeUs / 1000000), h.number,
                static_cast<unsigned long long>(h.count),
                static_cast<unsigned long long>(h.expected), h.accepted ? "accepted" : "rejected");
    ok = writeLog(dir, "handover.log", text) && ok;

    text.clear();
    for (const CommandRecord &c : commands)
        if (c.line.find("spiWrite -m 1") != std::string::npos)
            appendf(text, "%lld %s\n", static_cast<long long>(c.timeUs / 1000000), c.line.c_str());
    ok = writeLog(dir, "registers.log", text) && ok;

    text.clear();
    for (const CounterReading &r : readings_)
        appendf(text, "%lld %d %u\n", static_cast<long long>(r.second), r.reg, r.value);
    ok = writeLog(dir, "counts.log", text) && ok;

    integrate();
    const BoardStats &s = stats_;
    text = format("handovers_open %d\nhandovers_accepted %d\nhandovers_rejected %d\n"
                  "dac_words %d\ndac_malformed %d\nlast_dac_code %d\noffset_ns %.1f\n"
                  "event_acks %d %d\n",
                  s.handoversOpen, s.handoversAccepted, s.handoversRejected, s.dacWords,
                  s.dacMalformed, s.lastDacCode, s.offsetNs, s.eventAcks[0], s.eventAcks[1]);
    return writeLog(dir, "summary.log", text) && ok;
}

} // namespace zarvent::sim
