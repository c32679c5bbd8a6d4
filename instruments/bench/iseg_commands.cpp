// `iseg`: the commands of the high-voltage supply.
#include "instruments/bench/commands.h"
#include "instruments/bench/iseg.h"
#include "instruments/bench/keithley.h"
#include "parser/qualifiers.h"
#include "server/output.h"

namespace kestrel::bench {

namespace {

constexpr int four_digits = 9999;
constexpr int slowest_ramp = 2, fastest_ramp = 255; // volts a second
constexpr double microamperes = 1e6, percent = 0.01;

bool channel_fits(int cn, int channel) {
    if (channel == 1 || channel == 2)
        return true;
    sv_printf(cn, "! ERROR: Please specify channel  1 or 2 not %d\n", channel);
    return false;
}

int &limit_of(int channel) {
    return iseg.limit[static_cast<std::size_t>(channel - 1)];
}

// ---------------------------------------------------------------- config

constexpr pt_format config_format(" port %s debug = %d");

// What the module says it can do; without it currents and limits could not be told.
bool identify(int cn) {
    static constexpr const char *failures[] = {"! ERROR Parsing serial number from module id\n",
                                               "! ERROR Parsing software release from module id\n",
                                               "! ERROR Parsing Max output voltage from module id\n",
                                               "! ERROR Parsing Max output current from module id\n"};
    iseg_turn t({.cn = cn});
    const std::optional<std::string> text = t ? iseg_ask(t, "#") : std::nullopt;
    if (!text)
        return false;
    sv_printf(cn, "# Note module id = %s\n", text->c_str());
    iseg.id = {};
    const int understood = parse_module_id(*text, iseg.id);
    if (understood < 4)
        sv_printf(cn, "%s", failures[understood]);
    return understood == 4;
}

int config(int quals, int cn) {
    const pt_qualifiers<config_format> q(quals);
    if (line_is_open(iseg.wire, {.cn = cn})) {
        sv_printf(cn, "# %s is already open\n", iseg.wire.name.c_str());
        return -1;
    }
    if (q.given("port"))
        iseg.device = q.text("port");
    connection link = open_serial(cn, iseg.device, B9600);
    if (!link.fd)
        return -1;
    iseg.wire.debug = q.given("debug");
    line_opened(iseg.wire, std::move(link));
    if (identify(cn))
        return 0;
    line_close(iseg.wire);
    return -1;
}

// ---------------------------------------------------------------- set

int set_limit(int, int cn, int channel, int volts) {
    if (!channel_fits(cn, channel))
        return -1;
    if (volts < 0) {
        sv_printf(cn, "! ERROR Please specify magnitude (absoluyte) volatge limit (e.g. +100)\n");
        return -1;
    }
    limit_of(channel) = volts;
    sv_printf(cn, "# Setting software V limit chann %d = %d\n", channel, volts);
    return 0;
}

// The set point first: without its echo the ramp is not started.
int set_volts(int cn, int channel, int volts, bool wait) {
    if (volts < 0) {
        sv_printf(cn, "! ERROR: Please specify magnitude of required voltage\n");
        return -1;
    }
    if (volts > limit_of(channel)) {
        sv_printf(cn, "! ERROR: Requested voltage %d >  software limit %d \n", volts, limit_of(channel));
        return -1;
    }
    if (volts > four_digits) {
        sv_printf(cn, "! ERROR: Expected a voltage of at most %d, not %d\n", four_digits, volts);
        return -1;
    }
    {
        iseg_turn t({.cn = cn});
        if (!t || !iseg_ask(t, text_of("D%d=%04d", channel, volts)) || !iseg_ask(t, text_of("G%d", channel)))
            return -1;
    }
    if (!wait)
        return 0;
    const std::optional<std::string> end = iseg_wait(cn, channel, false);
    if (end && *end != "ON")
        sv_printf(cn, "! ERROR: The ramp of channel %d ended with status '%s'\n", channel, end->c_str());
    return end && *end == "ON" ? 0 : -1;
}

int set_number(int cn, const std::string &command) {
    iseg_turn t({.cn = cn});
    return t && iseg_ask(t, command) ? 0 : -1;
}

int set_trip(int cn, int channel, int current) {
    if (current < 0 || current > four_digits) {
        sv_printf(cn, "! ERROR: Expected a current limit in range 0..%d, not %d\n", four_digits, current);
        return -1;
    }
    return set_number(cn, text_of("L%d=%04d", channel, current));
}

int set_ramp(int cn, int channel, int speed) {
    if (speed < slowest_ramp || speed > fastest_ramp) {
        sv_printf(cn, "! ERROR: Expected a ramp speed in range %d..%d, not %d\n", slowest_ramp, fastest_ramp,
                  speed);
        return -1;
    }
    return set_number(cn, text_of("V%d=%03d", channel, speed));
}

constexpr pt_format set_format("%d %d v i ramp no-wait = %d");

int set(int quals, int cn, int channel, int value) {
    const pt_qualifiers<set_format> q(quals);
    if (!channel_fits(cn, channel))
        return -1;
    if (q.count({"v", "i", "ramp"}) > 1) {
        sv_printf(cn, "! ERROR: Please specify at most one of v, i and ramp\n");
        return -1;
    }
    if (q.given("i"))
        return set_trip(cn, channel, value);
    if (q.given("ramp"))
        return set_ramp(cn, channel, value);
    return set_volts(cn, channel, value, !q.given("no-wait"));
}

// ---------------------------------------------------------------- get

constexpr pt_format get_format("%d v i vl il vs ramp = %g");

struct quantity {
    const char *command;
    double (*of)(double); // the number that is told of the number that is answered
};
constexpr pt_qualifiers<get_format>::choice<quantity> quantities[] = {
    {"v", {"U%d", [](double v) { return v; }}},
    {"i", {"I%d", [](double v) { return v * microamperes; }}},
    {"vl", {"M%d", [](double v) { return v * percent * iseg.id.max_volts; }}},
    {"il", {"N%d", [](double v) { return v * percent * iseg.id.max_amperes * microamperes; }}},
    {"vs", {"D%d", [](double v) { return v; }}},
    {"ramp", {"V%d", [](double v) { return v; }}},
};

double get(int quals, int cn, int channel) {
    const pt_qualifiers<get_format> q(quals);
    if (!channel_fits(cn, channel))
        return -1.0;
    const std::optional<quantity> asked = q.none() ? quantities[0].means : q.only(quantities);
    if (!asked) {
        sv_printf(cn, "! ERROR: Please specify at most one of v, i, vl, il, vs and ramp\n");
        return -1.0;
    }
    std::string command = asked->command;
    command.replace(1, 2, std::to_string(channel));
    iseg_turn t({.cn = cn});
    const std::optional<double> value = t ? iseg_number(t, command) : std::nullopt;
    return value ? asked->of(*value) : -1.0;
}

pt_string status(int, int cn, int channel) {
    if (!channel_fits(cn, channel))
        return std::nullopt;
    iseg_turn t({.cn = cn});
    const std::optional<iseg_status> found = t ? iseg_get_status(t, channel) : std::nullopt;
    if (!found)
        return std::nullopt;
    sv_printf(cn, "# Status= '%s'\n", found->whole.c_str());
    return found->text;
}

int status_num(int, int cn, int channel) {
    if (!channel_fits(cn, channel))
        return -1;
    iseg_turn t({.cn = cn});
    const std::optional<double> word = t ? iseg_number(t, text_of("T%d", channel)) : std::nullopt;
    return word ? shown(*word) : -1;
}

constexpr pt_format wait_format("%d quiet = %s");

pt_string wait(int quals, int cn, int channel) {
    if (!channel_fits(cn, channel))
        return std::nullopt;
    return iseg_wait(cn, channel, pt_qualifiers<wait_format>(quals).given("quiet"));
}

} // namespace

constinit const PARSE_TREE iseg_tree[] = {
    pt_command<config>("config", config_format, "connect to the high-voltage supply",
                       "Serial device/Show what is sent and received"),
    pt_command<set_limit>("set-limit", "%d %d = %d", "set the software voltage limit of a channel",
                          "Channel/Volts, without sign"),
    pt_command<set>("set", set_format, "set a voltage, a current limit or a ramp speed",
                    "Channel/Value/Voltage (default)/Current limit/Ramp speed in V per second, 2..255/"
                    "Return while the voltage ramps"),
    pt_command<get>("get", get_format, "get one quantity of a channel",
                    "Channel/Measured voltage (default)/Measured current in uA/Voltage limit in V/"
                    "Current limit in uA/Set point in V/Ramp speed in V per second"),
    pt_command<status>("status", "%d = %s", "get the status of a channel", "Channel"),
    pt_command<status_num>("status-num", "%d = %d", "get the status word of a channel", "Channel"),
    pt_command<wait>("wait", wait_format, "wait until the ramp of a channel ends",
                     "Channel/Show nothing meanwhile"),
    pt_end(),
};

} // namespace kestrel::bench
