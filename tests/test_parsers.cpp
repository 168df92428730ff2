// The pure parts: the daemon's arithmetic and formats. The parsers of outside
// text are checked against reference models over their corpora (tests/fuzz).
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "state/cycle_time.h"
#include "cycle/handover.h"
#include "cycle/offset.h"
#include "cycle/steering.h"
#include "fpga/fpga_loader.h"
#include "hardware/parsers.h"
#include "ntp/ntp_parsers.h"
#include "statistics/capture.h"
#include "statistics/status_page.h"

namespace zarvent {
namespace {

TEST(Arithmetic, PhaseFoldsIntoSignedNanoseconds)
{
    struct {
        std::uint32_t raw;
        std::int32_t offset;
    } cases[] = {
        {0, 0},
        {5, -50},
        {99999995, 50},
        {50000000, -500000000}, // exactly half a second counts as negative
        {50000001, 499999990},
        {4277071597u, 178956990}, // beyond one second: 32-bit arithmetic
        {4277071598u, 0},         // 0xFEEEEEEE: no measurement
        {4294967295u, 0},
    };
    for (const auto &c : cases)
        EXPECT_EQ(foldPhase(c.raw), c.offset) << c.raw;
}

TEST(Arithmetic, SecondsCountForTheFpga)
{
    EXPECT_EQ(taiCountOfNextSecond("eea58352.1f2e3d4c ", 37), 1794835704);
    EXPECT_EQ(taiCountOfNextSecond("eea58352.1f2e3d4c ", -1), 1794835666);
    // After the NTP era rolled over on 2036-02-07 the count goes on.
    EXPECT_EQ(taiCountOfNextSecond("00000010.00000000 ", 37), 4294967296 + 16 - 2208988799 + 37);
    EXPECT_EQ(taiCountOfNextSecond("ffffffff.00000000 ", 0), 4294967295 - 2208988799);
}

TEST(Arithmetic, CycleSecondIsTheNearestSecond)
{
    EXPECT_EQ(cycleSecond(1'000'000'000'000), 1000);
    EXPECT_EQ(cycleSecond(999'997'000'000), 1000); // the pulse just before the boundary
    EXPECT_EQ(cycleSecond(1'000'499'999'999), 1000);
    EXPECT_EQ(cycleSecond(1'000'500'000'000), 1001);
}

TEST(Arithmetic, SteeringLawWorkedExample)
{
    struct {
        long offset;
        std::int32_t S;
        std::int64_t Intg;
        std::int64_t d;
        std::uint32_t code;
    } seconds[] = {
        {1000, 50, 1050, -950, 32840},
        {1000, 97, 2147, -903, 32862},
        {-200, 82, 2029, 282, 32796},
        {30000, 577, 12606, -9423, 33532},
    };
    std::int32_t summ = 0;
    std::int64_t intg = 0;
    for (const auto &s : seconds) {
        const SteeringStep r = steeringLaw(32768, s.offset, summ, intg);
        EXPECT_EQ(r.filtered, s.S);
        EXPECT_EQ(r.integral, s.Intg);
        EXPECT_EQ(r.difference, s.d);
        EXPECT_EQ(dacCode(r.control), s.code);
        summ = r.filtered;
        intg = r.integral;
    }
    EXPECT_EQ(steeringLaw(32768, -25000, 0, 0).error, -10000);
    EXPECT_EQ(steeringLaw(32768, 19, 0, 0).filtered, 0); // 0.95 truncates
    EXPECT_EQ(dacCode(steeringLaw(32768, 19, 0, 0).control), 32769u);
    EXPECT_EQ(steeringLaw(32768, 0, -1, 0).filtered, 0);  // -0.95 toward zero
    EXPECT_EQ(steeringLaw(32768, 0, -2, 0).filtered, -1); // -1.9
    EXPECT_EQ(dacCode(70000), 65535u);
    EXPECT_EQ(dacCode(-5), 0u);
    // A centre from the file moves the code by the change of the centre.
    EXPECT_EQ(steeringLaw(40000, 100, 50, 1000).control - steeringLaw(32768, 100, 50, 1000).control,
              7232);
}

TEST(Arithmetic, OffsetFilterStartsFromZero)
{
    OffsetFilter f;
    std::int32_t mean = 0;
    std::int32_t jitter = 0;
    f.run(10000, mean, jitter);
    EXPECT_EQ(mean, 31); // the integer part of b x
    for (int i = 0; i < 2000; ++i)
        f.run(10000, mean, jitter);
    EXPECT_GT(mean, 9990);
    EXPECT_LE(mean, 10000);
}

TEST(Formats, ChartFileNames)
{
    std::tm t{};
    t.tm_year = 126;
    t.tm_mon = 10;
    t.tm_mday = 6;
    t.tm_hour = 4;
    t.tm_min = 5;
    EXPECT_EQ(chartFileName(t), "/ramcache/zarvent/ptp_data_2026~11~06_04-05");
    EXPECT_TRUE(isChartFileName("ptp_data_2026~11~06_04-05"));
    EXPECT_FALSE(isChartFileName("ptp_data_0000_00_01"));
    EXPECT_FALSE(isChartFileName("ptp_data_2026~11~06_04-05.tmp"));
    EXPECT_FALSE(isChartFileName("ntp_data.txt"));
}

TEST(Formats, FpgaAnswerIsTheLineAndOneCharacter)
{
    EXPECT_TRUE(fpgaAnswered("AA AA A5\n"));
    EXPECT_FALSE(fpgaAnswered("AA AA A5"));
    EXPECT_FALSE(fpgaAnswered("AA AA A5 \n"));
    EXPECT_FALSE(fpgaAnswered("FF FF FF\n"));
    EXPECT_FALSE(fpgaAnswered("AA AA A6\n"));
    EXPECT_FALSE(fpgaAnswered(""));
}

TEST(Formats, StatTablesOfAFrame)
{
    std::array<std::uint8_t, StatCapture::kFrameLength> rx{};
    for (std::size_t i = 0; i < rx.size(); ++i)
        rx[i] = static_cast<std::uint8_t>(i);
    const std::string text = statTables(rx.data(), StatCapture::kFrameLength);
    // Long record 0 is bytes 2-14: 11..8, a tab, 7..0; byte 12 (0x0e) never shows.
    EXPECT_EQ(text.substr(0, 16 + 26), " time2*\t     t1\n0d0c0b0a\t0908070605040302\n");
    // Short record 0 starts at byte 834 = 0x342: bytes 7..0, byte 8 never shows.
    EXPECT_NE(text.find("time2\n4948474645444342\n"), std::string::npos);
    int lines = 0;
    for (char c : text)
        lines += c == '\n';
    EXPECT_EQ(lines, 132);
    EXPECT_EQ(std::string(antennaText(4)), "      ");
}

} // namespace
} // namespace zarvent
