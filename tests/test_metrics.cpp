// Timing metrics of a time-error series and the report of a simulated run.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "metrics.h"
#include "report.h"

namespace zarvent::sim {
namespace {

std::vector<double> repeat(std::vector<double> period, std::size_t times)
{
    std::vector<double> out;
    for (std::size_t k = 0; k < times; k++)
        out.insert(out.end(), period.begin(), period.end());
    return out;
}

TEST(Metrics, ConstantOffsetAndRampHaveNoWander)
{
    const std::vector<double> constant(30, 2500.0);
    std::vector<double> up;
    std::vector<double> down;
    for (int i = 0; i < 30; i++) {
        up.push_back(2.5 * i);
        down.push_back(-2.5 * i);
    }
    for (std::size_t n = 1; n < 30; n++) {
        SCOPED_TRACE(n);
        EXPECT_EQ(mtie(constant, n), 0.0);
        EXPECT_DOUBLE_EQ(*mtie(up, n), 2.5 * static_cast<double>(n));
        EXPECT_DOUBLE_EQ(*mtie(down, n), 2.5 * static_cast<double>(n));
        if (n <= 10) { // a constant frequency offset is no wander either
            EXPECT_NEAR(*tdev(constant, n), 0, 1e-12);
            EXPECT_NEAR(*tdev(up, n), 0, 1e-12);
            EXPECT_NEAR(*tdev(down, n), 0, 1e-12);
        }
    }
    EXPECT_EQ(mtie(constant, 0), std::nullopt);
    EXPECT_EQ(mtie(constant, 30), std::nullopt); // a window of 31 samples
    EXPECT_EQ(tdev(constant, 0), std::nullopt);
    EXPECT_EQ(tdev(constant, 11), std::nullopt); // 3n > N
}

TEST(Metrics, SineAndStepByHand)
{
    // x = 0, 1, 0, -1, ... over 12 samples. With d(i) = x[i+2n] - 2x[i+n] + x[i]
    // and w(j) the sum of n of them from j:
    //  n = 1: d = -2x[j+1], w^2 = 4,0,4,0,... mean 2, TDEV^2 = 2 / 6 = 1/3
    //  n = 2: d = 4x[i], w = 4(x[j] + x[j+1]) = +-4, TDEV^2 = 16 / 24 = 2/3
    //  n = 3: w = 2(x[j+1] + x[j+2] + x[j+3]) = -2x[j], j = 0..3: mean 2,
    //         TDEV^2 = 2 / 54 = 1/27
    //  n = 4: x[i+8] = x[i+4] = x[i]: d = 0, TDEV = 0
    const std::vector<double> sine = repeat({0, 1, 0, -1}, 3);
    // A step of 10 at i = 10 over 20 samples: MTIE 10 for every n.
    //  n = 1: w = 10 at j = 8, -10 at j = 9; 18 terms: TDEV^2 = 200 / (6 * 18)
    //  n = 2: w = 10, 20, 0, -20, -10 from j = 5; 15 terms: TDEV^2 = 1000 / 360
    //  n = 3: w = 10, 20, 30, 10, -10, -30, -20, -10 from j = 2; 12 terms:
    //         TDEV^2 = 3000 / 648
    std::vector<double> step(20, 0.0);
    std::fill(step.begin() + 10, step.end(), 10.0);
    const struct Case {
        const std::vector<double> &x;
        std::size_t n;
        double mtie;
        double tdev;
    } cases[] = {
        {sine, 1, 1, std::sqrt(1.0 / 3)},       {sine, 2, 2, std::sqrt(2.0 / 3)},
        {sine, 3, 2, std::sqrt(1.0 / 27)},      {sine, 4, 2, 0},
        {step, 1, 10, std::sqrt(200.0 / 108)},  {step, 2, 10, std::sqrt(1000.0 / 360)},
        {step, 3, 10, std::sqrt(3000.0 / 648)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << (&c.x == &sine ? "sine" : "step") << " n " << c.n);
        EXPECT_NEAR(*mtie(c.x, c.n), c.mtie, 1e-12);
        EXPECT_NEAR(*tdev(c.x, c.n), c.tdev, 1e-12);
    }
    EXPECT_EQ(mtie(sine, 11), 2.0);
    EXPECT_EQ(mtie(step, 19), 10.0);
}

TEST(Report, WritesThePageAndOneCsvRowPerSecond)
{
    std::string dirTemplate =
        (std::filesystem::temp_directory_path() / "zarvent-report-XXXXXX").string();
    ASSERT_NE(mkdtemp(dirTemplate.data()), nullptr);
    const std::filesystem::path dir(dirTemplate);

    // Two hours: unsteered drift, then steering from 100 s that pulls the
    // phase in; the daemon reads an offset every other second.
    ReportInput input{
        "ramp & <pull>", "ocxo, gain 0.012 ns/s per code", {}, "Offset: 12 <b>ns</b>"};
    for (int i = 0; i < 7200; i++) {
        ReportSecond s;
        s.unixSecond = 1794835620 + i;
        s.trueOffsetNs =
            i < 100 ? 2000.0 - 15.0 * i : 500.0 * std::exp(-(i - 100) / 60.0) + 0.001 * i;
        s.offsetRead = i % 2 == 0;
        s.readOffsetNs = s.trueOffsetNs + 3.25;
        s.dacCode = 33000 + i % 7;
        s.referenceValid = i >= 10;
        s.steering = i >= 100;
        s.alarm = i < 10;
        s.ptpRequests = 40;
        s.ptpResponses = 38;
        input.seconds.push_back(s);
    }
    ASSERT_EQ(writeReport(dir.string(), input), "");

    std::ifstream csv(dir / "series.csv");
    std::string line;
    std::getline(csv, line);
    EXPECT_EQ(line, "unix_second,true_offset_ns,read_offset_ns,dac_code,reference_valid,alarm,"
                    "antenna_fault,steering,ptp_requests,ptp_responses");
    // One row a second; the first: no offset read in an odd second is an
    // empty field.
    std::getline(csv, line);
    EXPECT_EQ(line, "1794835620,2000.000,2003.250,33000,0,1,0,0,40,38");
    std::size_t rows = 1;
    while (std::getline(csv, line))
        rows++;
    EXPECT_EQ(rows, input.seconds.size());

    std::stringstream html;
    html << std::ifstream(dir / "report.html").rdbuf();
    const std::string page = html.str();
    std::size_t plots = 0;
    for (std::size_t p = page.find("<svg class=\"plot\""); p != std::string::npos;
         p = page.find("<svg class=\"plot\"", p + 1))
        plots++;
    EXPECT_EQ(plots, 7u); // phase, measured phase, DAC, states, PTP, MTIE, TDEV
    // 500 e^(-t / 60) + 0.001 (100 + t) is within 100 ns from t = 97 s on.
    EXPECT_NE(page.find("<td>first steering</td><td>7100 s</td><td>97 s</td>"), std::string::npos);
    EXPECT_NE(page.find("ramp &amp; &lt;pull&gt;"), std::string::npos);
    EXPECT_NE(page.find("Offset: 12 &lt;b&gt;ns&lt;/b&gt;"), std::string::npos);

    // A directory that cannot be made: the reason, not a crash.
    EXPECT_NE(writeReport((dir / "series.csv" / "sub").string(), input), "");
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace zarvent::sim
