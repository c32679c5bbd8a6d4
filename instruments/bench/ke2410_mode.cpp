// `ke2410 set-mode` and the ranges and protections. None of them sends a level.
#include "instruments/bench/ke2410.h"
#include "instruments/bench/numbers.h"
#include "parser/qualifiers.h"
#include "server/output.h"

#include <cmath>
#include <initializer_list>

namespace kestrel::bench {

namespace {

constexpr double micro = 1e-6;

constexpr pt_format mode_format("current v %g i %g ui %g rsync auto-off bipolar = %d");
using mode_quals = pt_qualifiers<mode_format>;

bool tell_all(int cn, std::initializer_list<std::string> commands) {
    ke2410_turn t({.cn = cn});
    if (!t || !ke2410_may_unleash(t))
        return false;
    for (const std::string &command : commands) {
        if (!command.empty() && !ke2410_tell(t, command))
            return false;
    }
    return true;
}

// The protection is a magnitude; the range of a source of one sign has that sign.
std::string protection(const std::optional<double> &volts) {
    return volts ? text_of(":SOUR:VOLT:PROT %s", text_of("%g", std::abs(*volts)).c_str()) : "";
}
std::string range(const std::optional<double> &volts, bool bipolar) {
    return volts ? text_of(":SOUR:VOLT:RANG %g", bipolar ? std::abs(*volts) : *volts) : "";
}

bool mode_fits(int cn, const mode_quals &q) {
    if (q.given("i") && q.given("ui")) {
        sv_printf(cn, "! ERROR: Please specify onpy one of current in A or uA\n");
        return false;
    }
    if (const double v = q.real("v"); !(std::abs(v) <= ke2410_volts_max)) {
        sv_printf(cn, "! ERROR: Expected voltage limit in range -1100 to 1100, not %d\n", shown(v));
        return false;
    }
    if (!std::isfinite(q.real("i")) || !std::isfinite(q.real("ui"))) {
        sv_printf(cn, "! ERROR: Expected a finite current limit\n");
        return false;
    }
    return true;
}

int set_mode(int quals, int cn) {
    const mode_quals q(quals);
    if (!mode_fits(cn, q))
        return -1;
    std::optional<double> amperes = q.real_if_given("i");
    if (const auto microamperes = q.real_if_given("ui"))
        amperes = *microamperes * micro;
    const std::optional<double> volts = q.real_if_given("v");
    const bool current = q.given("current");
    if (!tell_all(cn, {current ? ":SOUR:FUNC CURRENT" : ":SOUR:FUNC VOLT", ":SOUR:VOLT:MODE FIXED",
                       protection(volts), range(volts, q.given("bipolar")),
                       amperes ? text_of(":SENS:CURR:PROT %g", *amperes) : "",
                       q.given("rsync") ? ":SENS:CURR:PROT:RSYN ON" : ":SENS:CURR:PROT:RSYN OFF",
                       q.given("auto-off") ? ":SOUR1:CLE:AUTO ON" : ":SOUR1:CLE:AUTO OFF"}))
        return -1;
    ke2410.current_source = current;
    return 0;
}

constexpr pt_format i_range_format("i1uA i10uA i100uA i1mA i20mA i100mA i1A auto = %d");
using i_range_quals = pt_qualifiers<i_range_format>;
constexpr i_range_quals::choice<const char *> i_ranges[] = {
    {"i1uA", " 1e-6"},   {"i10uA", " 10e-6"},   {"i100uA", " 100e-6"}, {"i1mA", " 1e-3"},
    {"i20mA", " 20e-3"}, {"i100mA", " 100e-3"}, {"i1A", " 1"},
};

int tell_one(int cn, const std::string &command) {
    ke2410_turn t({.cn = cn});
    return t && ke2410_tell(t, command) ? 0 : -1;
}

int not_one(int cn) {
    sv_printf(cn, "! ERROR: Please specify exactly one range\n");
    return -1;
}

int set_i_range(int quals, int cn) {
    const i_range_quals q(quals);
    if (ke2410.current_source) {
        sv_printf(cn, "! ERROR: Cannot set current measurement range when working as a current soucre\n");
        return -1;
    }
    const std::optional<const char *> chosen = q.only(i_ranges);
    if (q.given("auto") == chosen.has_value() || (q.given("auto") && q.first(i_ranges)))
        return not_one(cn);
    return tell_one(cn, chosen ? text_of(":SENSE:CURR:RANG%s ", *chosen)
                               : text_of(":SENSE:CURR:RANG:AUTO %d ", 1));
}

constexpr pt_format v_range_format("v200mV v2V v20V v1000V auto = %d");
using v_range_quals = pt_qualifiers<v_range_format>;
constexpr v_range_quals::choice<const char *> v_ranges[] = {
    {"v200mV", "200e-3"}, {"v2V", "2"}, {"v20V", "20"}, {"v1000V", "1000"}};

int set_v_range(int quals, int cn) {
    const v_range_quals q(quals);
    const std::optional<const char *> chosen = q.only(v_ranges);
    if (q.given("auto") == chosen.has_value() || (q.given("auto") && q.first(v_ranges)))
        return not_one(cn);
    return tell_one(cn, chosen ? text_of(":SOUR:VOLT:RANG %s ", *chosen) : ":SOUR:VOLT:RANG:AUTO 1 ");
}

constexpr pt_format limit_format("v20V v40V v100V v200V v300V v400V v500V none = %d");
constexpr pt_qualifiers<limit_format>::choice<const char *> limits[] = {
    {"v20V", "20"},   {"v40V", "40"},   {"v100V", "100"}, {"v200V", "200"},
    {"v300V", "300"}, {"v400V", "400"}, {"v500V", "500"}, {"none", "NONE"},
};

int set_src_v_limit(int quals, int cn) {
    const std::optional<const char *> chosen = pt_qualifiers<limit_format>(quals).only(limits);
    if (!chosen)
        return not_one(cn);
    return tell_all(cn, {text_of(":SOUR:VOLT:PROT %s ", *chosen)}) ? 0 : -1;
}

} // namespace

constinit const PARSE_TREE row_ke2410_set_mode = pt_command<set_mode>(
    "set-mode", mode_format, "choose between voltage and current source, and its protections",
    "A current source, not a voltage source/Protection voltage and range/Current limit in A/"
    "Current limit in uA/Synchronise the current range with the limit/Output off after each measurement/"
    "The range is for both signs");
constinit const PARSE_TREE row_ke2410_set_i_range =
    pt_command<set_i_range>("set-i-range", i_range_format, "set the range of the current measurement",
                            "1 uA/10 uA/100 uA/1 mA/20 mA/100 mA/1 A/Automatic");
constinit const PARSE_TREE row_ke2410_set_v_range = pt_command<set_v_range>(
    "set-v-range", v_range_format, "set the range of the voltage source", "200 mV/2 V/20 V/1000 V/Automatic");
constinit const PARSE_TREE row_ke2410_set_src_v_limit = pt_command<set_src_v_limit>(
    "set-src-v-limit", limit_format, "set the protection voltage of the instrument",
    "20 V/40 V/100 V/200 V/300 V/400 V/500 V/No protection");

} // namespace kestrel::bench
