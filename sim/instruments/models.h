// sim/instruments: what the instruments are at the moment, for the text port to look at and to change. The lock guards
// all of it.
#pragma once

#include "sim/instruments/instrument.h"
#include "sim/instruments/load.h"

#include <array>
#include <deque>
#include <map>
#include <string>

namespace kestrel {

// The source-meter.
struct ke2410_model {
    load detector{};
    bool output = false, current_source = false, auto_off = false;
    double level = 0.0;          // volts, set
    double protection = 1100.0;  // volts
    double compliance = 1.05e-4; // amperes
    std::deque<std::string> messages{};

    double volts() const; // at the detector
    double amperes() const { return detector.current(volts()); }
};
extern ke2410_model ke2410;
void ke2410_interlock(); // opens it: the output goes off, with a message

// The multimeter: what lies at its inputs.
struct ke2700_model {
    std::map<int, double> input{}; // by channel; 0 is the front
    double noise = 0.0;            // standard deviation
    double seconds = 0.02;         // a reading
    int channel = 0;
    int samples = 1;
    std::map<std::string, std::string> settings{};
};
extern ke2700_model ke2700;

// The bench supply.
struct tti_channel {
    double volts = 0.0, amperes = 0.0, volts_max = 0.0, amperes_max = 0.0;
    bool on = false;
};
extern std::array<tti_channel, 2> tti;

// The high-voltage supply.
struct iseg_channel {
    load detector{};
    double volts = 0.0, goal = 0.0; // at the output, of the ramp
    double set = 0.0;
    double speed = 10.0;  // volts a second
    double trip = 0.0;    // microamperes, 0: none
    double checked = 0.0; // bench_now() of `volts`
    bool tripped = false;

    void advance(); // to now
};
inline constexpr double iseg_volts_max = 2000.0, iseg_amperes_max = 6e-3;
extern std::array<iseg_channel, 2> iseg;

} // namespace kestrel
