// Writes the report of a synthetic hour into a directory, for the test that
// opens the page in a browser:
//   report_sample DIR
// The oscillator's frequency walks at random; a PI loop on the read phase
// steers it through the DAC, and the reference drops out for a while halfway.
#include <cmath>
#include <cstdio>
#include <random>

#include "report.h"

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: report_sample DIR\n");
        return 2;
    }
    using zarvent::sim::ReportSecond;
    zarvent::sim::ReportInput input;
    input.title = "synthetic hour";
    input.oscillator = "ocxo: gain 0.012 ns/s per code, natural code 33000, random-walk frequency";
    input.statusPage = "<b>Current Offset [ns]:</b>\t3\n<b>Reference time:</b>    GPS+GLONASS\n";

    std::mt19937 random(7);
    std::normal_distribution<double> walk(0.0, 0.002); // ns/s per second
    std::normal_distribution<double> readNoise(0.0, 2.0);
    std::poisson_distribution<int> packets(40);
    constexpr double gain = 0.012; // ns/s per DAC code
    constexpr int natural = 33000;
    double phase = 2500;    // ns
    double frequency = 0.3; // ns/s, before the DAC's pull
    double integral = 0;
    int dac = natural;
    int validFor = 0;
    for (int t = 0; t < 4 * 3600; t++) {
        ReportSecond s;
        s.unixSecond = 1794835620 + t;
        s.referenceValid = t >= 30 && (t < 2400 || t >= 2500);
        s.alarm = t >= 2400 && t < 2500;
        s.antennaFault = t >= 2400 && t < 2460;
        validFor = s.referenceValid ? validFor + 1 : 0;
        s.steering = validFor > 60;
        s.trueOffsetNs = phase;
        s.offsetRead = s.referenceValid;
        s.readOffsetNs = phase + readNoise(random);
        if (s.steering) {
            integral += s.readOffsetNs;
            const double pull = -(0.05 * s.readOffsetNs + 0.0008 * integral);
            dac = natural + static_cast<int>(std::lround(pull / gain));
        }
        s.dacCode = dac;
        s.ptpRequests = packets(random);
        s.ptpResponses = s.ptpRequests - (t % 17 == 0 ? 1 : 0);
        input.seconds.push_back(s);
        frequency += walk(random);
        phase += frequency + gain * (dac - natural);
    }
    const std::string why = zarvent::sim::writeReport(argv[1], input);
    if (!why.empty()) {
        std::fprintf(stderr, "report_sample: %s\n", why.c_str());
        return 1;
    }
    return 0;
}
