// The board as the daemon drives it: its GPIO lines, the FPGA's registers and
// their bits, and the DAC's commands. Every number the hardware defines is
// named here once.
#pragma once

#include <cstdint>
#include <string>

namespace zarvent {

// A GPIO line by its kernel number; sysfs names it by that number as decimal
// text (/sys/class/gpio/gpio19).
struct GpioPin {
    int number;

    std::string text() const
    {
        return std::to_string(number);
    }
    friend constexpr bool operator==(GpioPin, GpioPin) = default;
};

namespace pin {
// The FPGA's pulse, high once per second at the top of the second.
inline constexpr GpioPin kPulse{19};
// Exported at the loader's start and never read again.
inline constexpr GpioPin kFpgaSpare{13};
inline constexpr GpioPin kFpgaCheck{182};
// Indicators, driven only by shell echoes into their value files.
inline constexpr GpioPin kClientOff{70}; // the client-activity indicator: 70 and 71
inline constexpr GpioPin kClientOn{71};
inline constexpr GpioPin kReferenceA{72}; // the reference indicator: 72 and 73
inline constexpr GpioPin kReferenceB{73};
inline constexpr GpioPin kAntennaBad{74}; // the antenna indicator: 74 and 75
inline constexpr GpioPin kAntennaGood{75};
inline constexpr GpioPin kAlarmOn{76}; // the alarm indicator: 76 and 77
inline constexpr GpioPin kAlarmOff{77};
inline constexpr GpioPin kFactoryIndicator{78};
// Inputs.
inline constexpr GpioPin kIndicatorTest{79}; // 0: every indicator held at 1
inline constexpr GpioPin kAntennaFeed{85};   // status bit 2, and the feed switch
inline constexpr GpioPin kAntennaOpen{86};   // status bit 0 (0: no antenna)
inline constexpr GpioPin kAntennaShort{87};  // status bit 1 (0: a short)
inline constexpr GpioPin kFactoryButton{88}; // 0: pressed
inline constexpr GpioPin kAlarmInput{176};   // 0: the board signals an alarm
// The DAC's three-wire interface.
inline constexpr GpioPin kDacClock{96};
inline constexpr GpioPin kDacSelect{106}; // active low
inline constexpr GpioPin kDacData{118};
} // namespace pin

// The FPGA's registers as the register tool numbers them.
namespace fpga {
inline constexpr int kSyncRegister = 1;     // takes register 2's value with the sync bit
inline constexpr int kControlRegister = 2;  // reference-valid and relay bits
inline constexpr int kCountRegister = 3;    // the TAI seconds count, six bytes
inline constexpr int kHandoverOpen = 10;    // a hand-over's number: opens it
inline constexpr int kHandoverClose = 11;   // the same number: closes it
inline constexpr int kPhaseRegister = 14;   // the pulse's phase in 10 ns ticks
inline constexpr int kRequestCounter = 24;  // PTP requests of the last second
inline constexpr int kResponseCounter = 26; // PTP responses of the last second
inline constexpr int kRelayEvents = 28;     // bits 0 and 1: relay events
inline constexpr int kCaptureRegister = 48; // the statistics capture's control

inline constexpr unsigned kReferenceValidBit = 1u; // register 2 bit 0
inline constexpr unsigned kSyncBit = 1u;           // register 1 bit 0: steering
inline constexpr unsigned kRelayOneBit = 2u;       // register 2 bit 1: pulsed for event 1
inline constexpr unsigned kRelayTwoBit = 4u;       // register 2 bit 2: pulsed for event 2
inline constexpr unsigned kCaptureStartBit = 4u;   // register 48 value written to register 1
// The register tool's answer to a write once the FPGA is configured.
inline constexpr const char *kConfiguredAnswer = "AA AA A5";
} // namespace fpga

// The DAC word's commands (bits 23 to 20) and the values the daemon sends.
namespace dac {
inline constexpr unsigned kLoadCode = 3;  // the oscillator's control code
inline constexpr unsigned kReference = 4; // the reference set-up
inline constexpr unsigned kReferenceValue = 2048;
inline constexpr std::uint32_t kCentreCode = 32768; // mid-range, before a centre is known
} // namespace dac

} // namespace zarvent
