// sim/instruments: what really is: voltages, currents, detectors, and what happens to them.
#include "parser/qualifiers.h"
#include "server/output.h"
#include "sim/instruments/commands.h"
#include "sim/instruments/models.h"

namespace kestrel {

namespace {

constexpr pt_format load_format("leak %g breakdown %g resistance %g = %d");

// Ohms must be above 0, so that currents are numbers.
template <class Q> bool take_load(int cn, const Q &q, load &l) {
    const double leak = q.real("leak", l.leak_ohms), resistance = q.real("resistance", l.breakdown_ohms);
    const double breakdown = q.real("breakdown", l.breakdown_volts);
    if (!(leak > 0.0) || !(resistance > 0.0) || !(breakdown >= 0.0)) {
        sv_printf(cn, "! Resistances must be above 0, and the breakdown at a voltage of 0 or more\n");
        return false;
    }
    l = {leak, breakdown, resistance};
    return true;
}

// ---------------------------------------------------------------- ke2410

double ke2410_volts(int, int) {
    const std::lock_guard guard(bench.lock);
    return ke2410.volts();
}
double ke2410_current(int, int) {
    const std::lock_guard guard(bench.lock);
    return ke2410.amperes();
}
int ke2410_output(int, int) {
    const std::lock_guard guard(bench.lock);
    return ke2410.output;
}
int ke2410_level(int, int, double volts, int on) {
    const std::lock_guard guard(bench.lock);
    ke2410.level = volts;
    ke2410.output = on != 0;
    return 0;
}
int ke2410_load(int quals, int cn) {
    const std::lock_guard guard(bench.lock);
    return take_load(cn, pt_qualifiers<load_format>(quals), ke2410.detector) ? 0 : -1;
}
int ke2410_open_interlock(int, int) {
    const std::lock_guard guard(bench.lock);
    ke2410_interlock();
    return 0;
}

// ---------------------------------------------------------------- ke2700

constexpr pt_format input_format("%d %g noise %g seconds %g = %d");

int ke2700_input(int quals, int, int channel, double value) {
    const pt_qualifiers<input_format> q(quals);
    const std::lock_guard guard(bench.lock);
    ke2700.input[channel] = value;
    ke2700.noise = q.real("noise", ke2700.noise);
    ke2700.seconds = q.real("seconds", ke2700.seconds);
    return 0;
}

// ---------------------------------------------------------------- tti

// Volts at the output: none while it is off.
double tti_volts(int, int, int channel) {
    const std::lock_guard guard(bench.lock);
    if (channel < 1 || channel > 2)
        return -1.0;
    const tti_channel &c = tti[static_cast<std::size_t>(channel - 1)];
    return c.on ? c.volts : 0.0;
}

// ---------------------------------------------------------------- iseg

iseg_channel *iseg_of(int cn, int channel) {
    if (channel != 1 && channel != 2) {
        sv_printf(cn, "! There is no channel %d\n", channel);
        return nullptr;
    }
    iseg_channel *const c = &iseg[static_cast<std::size_t>(channel - 1)];
    c->advance();
    return c;
}

double iseg_volts(int, int cn, int channel) {
    const std::lock_guard guard(bench.lock);
    const iseg_channel *const c = iseg_of(cn, channel);
    return c ? c->volts : -1.0;
}

constexpr pt_format iseg_load_format("%d leak %g breakdown %g resistance %g = %d");

int iseg_load(int quals, int cn, int channel) {
    const std::lock_guard guard(bench.lock);
    iseg_channel *const c = iseg_of(cn, channel);
    return c && take_load(cn, pt_qualifiers<iseg_load_format>(quals), c->detector) ? 0 : -1;
}

int iseg_trip(int, int cn, int channel) {
    const std::lock_guard guard(bench.lock);
    iseg_channel *const c = iseg_of(cn, channel);
    if (!c)
        return -1;
    c->tripped = true;
    c->volts = c->goal = 0.0;
    return 0;
}

constexpr const char *load_help =
    "Resistance below the breakdown/Voltage of the breakdown/Resistance above it";

} // namespace

constinit const PARSE_TREE commands_ke2410[] = {
    pt_command<ke2410_volts>("volts", "= %g", "get the voltage at the detector", ""),
    pt_command<ke2410_current>("current", "= %g", "get the current through the detector, in A", ""),
    pt_command<ke2410_output>("output", "= %d", "get the state of the output", ""),
    pt_command<ke2410_level>("level", "%g %d = %d", "turn the knobs", "Volts/1 on or 0 off"),
    pt_command<ke2410_load>("load", load_format, "change the detector", load_help),
    pt_command<ke2410_open_interlock>("interlock", "= %d", "open the interlock: the output goes off", ""),
    pt_end(),
};

constinit const PARSE_TREE commands_ke2700[] = {
    pt_command<ke2700_input>("input", input_format, "put a value at an input",
                             "Channel, 0 for the front/Value/Standard deviation of all/Seconds of a reading"),
    pt_end(),
};

constinit const PARSE_TREE commands_tti[] = {
    pt_command<tti_volts>("volts", "%d = %g", "get the voltage of an output", "Channel"),
    pt_end(),
};

constinit const PARSE_TREE commands_iseg[] = {
    pt_command<iseg_volts>("volts", "%d = %g", "get the voltage at the detector", "Channel"),
    pt_command<iseg_load>(
        "load", iseg_load_format, "change the detector",
        "Channel/Resistance below the breakdown/Voltage of the breakdown/Resistance above it"),
    pt_command<iseg_trip>("trip", "%d = %d", "let a channel trip", "Channel"),
    pt_end(),
};

} // namespace kestrel
