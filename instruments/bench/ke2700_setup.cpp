// `ke2700 set-range` and `set-filter`: what the multimeter measures and how long it looks.
#include "instruments/bench/ke2700.h"
#include "parser/qualifiers.h"
#include "server/output.h"

namespace kestrel::bench {

namespace {

bool tell_all(int cn, const std::vector<std::string> &commands) {
    ke2700_turn t({.cn = cn});
    if (!t)
        return false;
    for (const std::string &command : commands) {
        if (!ke2700_tell(t, command))
            return false;
    }
    return true;
}

// ---------------------------------------------------------------- set-range

constexpr pt_format range_format(
    " dc-auto-V dc-100mV dc-1V dc-10V dc-100V dc-1000V ac-auto-V ac-100mV ac-1V ac-10V ac-100V ac-750V dc-auto-A "
    "dc-20mA dc-100mA dc-1A dc-3A ac-auto-A ac-1A ac-3A r-auto r-100 r-1k r-10k r-100k r-1M r-10M r-100M "
    "four-wire freq = %d");
using range_quals = pt_qualifiers<range_format>;

struct range {
    const char *function;
    const char *value; // as the command ends, "" for a function without ranges
};
constexpr const char *automatic = ":AUTO ON";
constexpr range_quals::choice<range> ranges[] = {
    {"dc-auto-V", {"VOLT:DC", automatic}},
    {"dc-100mV", {"VOLT:DC", " 0.1"}},
    {"dc-1V", {"VOLT:DC", " 1"}},
    {"dc-10V", {"VOLT:DC", " 10"}},
    {"dc-100V", {"VOLT:DC", " 100"}},
    {"dc-1000V", {"VOLT:DC", " 1000"}},
    {"ac-auto-V", {"VOLT:AC", automatic}},
    {"ac-100mV", {"VOLT:AC", " 0.1"}},
    {"ac-1V", {"VOLT:AC", " 1"}},
    {"ac-10V", {"VOLT:AC", " 10"}},
    {"ac-100V", {"VOLT:AC", " 100"}},
    {"ac-750V", {"VOLT:AC", " 750"}},
    {"dc-auto-A", {"CURR:DC", automatic}},
    {"dc-20mA", {"CURR:DC", " 0.02"}},
    {"dc-100mA", {"CURR:DC", " 0.1"}},
    {"dc-1A", {"CURR:DC", " 1"}},
    {"dc-3A", {"CURR:DC", " 3"}},
    {"ac-auto-A", {"CURR:AC", automatic}},
    {"ac-1A", {"CURR:AC", " 1"}},
    {"ac-3A", {"CURR:AC", " 3"}},
    {"r-auto", {"RES", automatic}},
    {"r-100", {"RES", " 100"}},
    {"r-1k", {"RES", " 1e3"}},
    {"r-10k", {"RES", " 10e3"}},
    {"r-100k", {"RES", " 100e3"}},
    {"r-1M", {"RES", " 1e6"}},
    {"r-10M", {"RES", " 10e6"}},
    {"r-100M", {"RES", " 100e6"}},
    {"freq", {"FREQ", ""}},
};

int set_range(int quals, int cn) {
    const range_quals q(quals);
    if (!q.first(ranges)) {
        sv_printf(cn, "! ERROR: Please specify a range\n");
        return -1;
    }
    const std::optional<range> chosen = q.only(ranges);
    if (!chosen) {
        sv_printf(cn, "! ERROR: Please specify at most 1 voltage or current range\n");
        return -1;
    }
    std::string function = chosen->function;
    if (q.given("four-wire") && function != "RES") {
        sv_printf(cn, "! ERROR: Only resistances are measured with four wires\n");
        return -1;
    }
    if (q.given("four-wire"))
        function = "FRES";
    std::vector<std::string> commands = {text_of(":FUNC '%s'", function.c_str())};
    if (*chosen->value)
        commands.push_back(text_of(":%s:RANG%s", function.c_str(), chosen->value));
    return tell_all(cn, commands) ? 0 : -1;
}

// ---------------------------------------------------------------- set-filter

constexpr pt_format filter_format(
    "dcv acv dci aci res res4 freq period cont temp slow medium fast nplc %g aper %g bw %d ave-count %d "
    "ave-window %g moving = %d");
using filter_quals = pt_qualifiers<filter_format>;

struct function {
    const char *name;
    bool supported, ac;
};
constexpr function usual_function = {"VOLT:DC", true, false};
constexpr filter_quals::choice<function> functions[] = {
    {"dcv", usual_function},          {"acv", {"VOLT:AC", true, true}},  {"dci", {"CURR:DC", true, false}},
    {"aci", {"CURR:AC", true, true}}, {"res", {"RES", true, false}},     {"res4", {"FRES", true, false}},
    {"freq", {"FREQ", false, false}}, {"period", {"PER", false, false}}, {"cont", {"CONT", false, false}},
    {"temp", {"TEMP", false, false}},
};

struct speed {
    double nplc; // power line cycles, of direct readings
    int band;    // hertz, of alternating ones
};
constexpr filter_quals::choice<speed> speeds[] = {
    {"slow", {5.0, 3}}, {"medium", {1.0, 30}}, {"fast", {0.1, 300}}};

bool filter_fits(int cn, const filter_quals &q, const function &f) {
    if (!f.supported) {
        sv_printf(cn, "! ERROR: Function %s not supported yet\n", f.name);
        return false;
    }
    if (q.first(speeds) && !q.only(speeds)) {
        sv_printf(cn, "! ERROR: Please specify at most 1 of slow, medium and fast\n");
        return false;
    }
    if (q.given("bw") && !f.ac) {
        sv_printf(cn, "! ERROR: Only alternating voltages and currents have a bandwidth\n");
        return false;
    }
    if (q.given("nplc") && q.given("aper"))
        sv_printf(cn, "'# WARNING: Normally specify either NPLC or aperture\n");
    return true;
}

// Averaging: off by a count of 0 or 1, on by anything else that is said about it.
std::vector<std::string> averaging(const filter_quals &q, const char *name) {
    if (!q.given("ave-count") && !q.given("ave-window") && !q.given("moving"))
        return {};
    if (q.given("ave-count") && q.number("ave-count") <= 1)
        return {text_of(":%s:AVER:STATE OFF", name)};
    std::vector<std::string> commands = {
        text_of(":%s:AVER:TCON %s", name, q.given("moving") ? "MOV" : "REP")};
    if (q.given("ave-window"))
        commands.push_back(text_of(":%s:AVER:WIND %f", name, q.real("ave-window")));
    if (q.given("ave-count"))
        commands.push_back(text_of(":%s:AVER:COUN %d", name, q.number("ave-count")));
    commands.push_back(text_of(":%s:AVER:STATE ON", name));
    return commands;
}

int set_filter(int quals, int cn) {
    const filter_quals q(quals);
    if (q.first(functions) && !q.only(functions)) {
        sv_printf(cn, "! ERROR: Please specify at most 1 reading type\n");
        return -1;
    }
    const function f = q.first(functions).value_or(usual_function);
    if (!filter_fits(cn, q, f))
        return -1;
    const speed s = q.first(speeds).value_or(speed{});
    const bool by_speed = q.first(speeds).has_value();
    std::vector<std::string> commands;
    if (q.given("nplc") || (by_speed && !f.ac))
        commands.push_back(text_of(":%s:NPLC %f", f.name, q.real("nplc", s.nplc)));
    if (q.given("aper"))
        commands.push_back(text_of(":%s:APER %f", f.name, q.real("aper")));
    if (q.given("bw") || (by_speed && f.ac))
        commands.push_back(text_of(":%s:DET:BAND %d", f.name, q.number("bw", s.band)));
    for (std::string &command : averaging(q, f.name))
        commands.push_back(std::move(command));
    return tell_all(cn, commands) ? 0 : -1;
}

} // namespace

constinit const PARSE_TREE row_ke2700_set_range = pt_command<set_range>(
    "set-range", range_format, "choose what is measured and its range",
    "DC volts, automatic/100 mV/1 V/10 V/100 V/1000 V/AC volts, automatic/100 mV/1 V/10 V/100 V/750 V/"
    "DC amperes, automatic/20 mA/100 mA/1 A/3 A/AC amperes, automatic/1 A/3 A/"
    "Resistance, automatic/100 ohms/1 kohm/10 kohms/100 kohms/1 Mohm/10 Mohms/100 Mohms/"
    "Resistance with four wires/Frequency");
constinit const PARSE_TREE row_ke2700_set_filter = pt_command<set_filter>(
    "set-filter", filter_format, "choose the speed of readings and their averaging",
    "DC volts (default)/AC volts/DC amperes/AC amperes/Resistance/Four wires/Frequency/Period/Continuity/"
    "Temperature/5 power line cycles or 3 Hz/1 or 30 Hz/0.1 or 300 Hz/Power line cycles/Aperture in s/"
    "Bandwidth in Hz, for AC/Readings of an average, 0 for none/Window of the average in %/"
    "A moving average, not a repeating one");

} // namespace kestrel::bench
