// `ke2410`: opening, asking, and the table of its commands.
#include "instruments/bench/commands.h"
#include "instruments/bench/ke2410.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"

#include <cmath>

namespace kestrel::bench {

namespace {

constexpr double reset_volts_max = 2.0; // an instrument that gives more is not reset
constexpr int usual_port = 5000;
constexpr double micro_per_one = 1e6;

constexpr pt_format config_format(" port %s debug ip-addr %s ip-port %d telnet = %d");

// A supply that drives a detector must not be switched off by a reset, nor one that does not say whether it does.
int initialise(int cn) {
    ke2410_turn t({.cn = cn});
    const std::optional<double> level = t ? ke2410_level(t) : std::nullopt;
    if (!level)
        return -1;
    if (std::abs(*level) > reset_volts_max) {
        sv_printf(cn,
                  "# Warning : Output is driving a voltage, not performing a reset, wind Vbias down gently "
                  "first\n");
        ke2410.initialised = true;
        return 0;
    }
    for (const char *command :
         {"*RST", ":SENS:FUNC:CONC 1 ", ":SENSE:VOLT:RANG:AUTO ON", ":SENSE:CURR:RANG:AUTO ON",
          ":SENS:FUNC \"CURR\" ", ":SENS:FUNC \"VOLT\" ", ":FORM:ELEM:SENS VOLT,CURR,TIME"}) {
        if (!ke2410_tell(t, command))
            return -1;
    }
    ke2410.current_source = false;
    ke2410.initialised = true;
    return 0;
}

int config(int quals, int cn) {
    const pt_qualifiers<config_format> q(quals);
    const open_wishes wishes = {q.text("port"), q.text("ip-addr"), q.number_if_given("ip-port"),
                                usual_port,     q.given("telnet"), q.given("debug"),
                                B9600};
    if (keithley_open(cn, ke2410.wire, ke2410.log, ke2410.device, "Keithley 2410", wishes))
        ke2410.initialised = false;
    else if (!ke2410.wire.open || ke2410.initialised) // one that did not answer is asked once more
        return -1;
    return initialise(cn);
}

pt_string send(int, int cn, const char *command) {
    if (!is_one_command(cn, command))
        return std::nullopt;
    ke2410_turn t({.cn = cn});
    if (!t)
        return std::nullopt;
    if (std::string_view(command).find('?') != std::string_view::npos)
        return ke2410_ask(t, command);
    return ke2410_tell(t, command) ? pt_string("") : std::nullopt;
}

constexpr pt_format read_error_format("clear = %s");

pt_string read_error(int quals, int cn) {
    ke2410_turn t({.cn = cn});
    if (!t)
        return std::nullopt;
    std::optional<std::string> text = ke2410_ask(t, ":STAT:QUE?");
    if (!text)
        return std::nullopt;
    sv_printf(cn, "# KE2410 message:'%s'\n", text->c_str());
    if (pt_qualifiers<read_error_format>(quals).given("clear") && !ke2410_tell(t, ":STAT:CLE"))
        return std::nullopt;
    return text;
}

// ---------------------------------------------------------------- get

constexpr pt_format get_format("v i vl il vs var %s = %g");
using get_quals = pt_qualifiers<get_format>;

struct quantity {
    get_quals::any_word word;
    const char *name;
    const char *command;
    double times; // from the instrument's unit
};
constexpr quantity quantities[] = {
    {"v", "v", ":READ?", 1.0},
    {"i", "i", ":READ?", micro_per_one},
    {"vl", "vl", ":SOUR:VOLT:PROT?", 1.0},
    {"il", "il", ":SENS:CURR:PROT?", micro_per_one},
    {"vs", "vs", ":SOUR:VOLT:LEV?", 1.0},
};

struct measured {
    std::string name;
    double value;
};

// All that is asked for, in the table's order; empty after a line. One reading serves voltage and current.
std::vector<measured> measure_asked(int cn, const get_quals &q) {
    const bool volts_by_default = q.count({"v", "i", "vl", "il", "vs"}) == 0;
    std::vector<measured> found;
    std::optional<ke2410_reading> reading;
    ke2410_turn t({.cn = cn});
    for (const quantity &asked : quantities) {
        const std::string name = asked.name;
        if (!t || !(q.given(asked.word) || (volts_by_default && name == "v")))
            continue;
        std::optional<double> value;
        if (name != "v" && name != "i")
            value = ke2410_number(t, asked.command);
        else if (reading || (reading = ke2410_read(t)))
            value = name == "v" ? reading->volts : reading->amperes;
        if (!value)
            return {};
        found.push_back({name, *value * asked.times});
    }
    return found;
}

double get(int quals, int cn) {
    const get_quals q(quals);
    const std::string variable = q.text("var");
    const std::vector<measured> found = measure_asked(cn, q);
    if (found.empty())
        return -1.0;
    const bool several = found.size() > 1;
    for (const measured &m : found) {
        if (several)
            sv_printf(cn, "# %s = %g\n", m.name.c_str(), m.value);
        const std::string name = several ? variable + "." + m.name : variable;
        if (q.given("var") && set_double_variable(cn, name, m.value, true) != 0)
            return -1.0;
    }
    return found.front().value;
}

} // namespace

constinit const PARSE_TREE ke2410_tree[] = {
    pt_command<config>(
        "config", config_format, "connect to the source-meter and initialise it",
        "Serial device/Show what is sent and received/Host, for TCP/TCP port (5000)/TCP port 23"),
    pt_command<send>("send", "%s = %s", "send a command of your own, unchecked", "Command"),
    pt_row(row_ke2410_set_limit),
    pt_row(row_ke2410_set_mode),
    pt_row(row_ke2410_set_i_range),
    pt_row(row_ke2410_set_v_range),
    pt_row(row_ke2410_set_src_v_limit),
    pt_row(row_ke2410_enable),
    pt_row(row_ke2410_set),
    pt_command<get>("get", get_format, "get measured values, limits and the set point",
                    "Measured voltage (default)/Measured current in uA/Protection voltage/"
                    "Current limit in uA/Set point in V/Global variable for the result"),
    pt_command<read_error>("read-error", read_error_format, "show the oldest message of the instrument",
                           "Clear the messages"),
    pt_row(row_ke2410_start_log),
    pt_row(row_ke2410_stop_log),
    pt_row(row_ke2410_pause_log),
    pt_row(row_ke2410_continue_log),
    pt_end(),
};

} // namespace kestrel::bench
