// `ke2700 tti-...`: the two-channel bench supply. It is told only; it says nothing.
#include "instruments/bench/ke2700.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"

namespace kestrel::bench {

namespace {

constexpr const char *usual_address = "192.168.1.9";
constexpr int tti_port = 9221;
constexpr double least_volts = 0.0, most_volts = 4.6;
constexpr int first_channel = 1, last_channel = 2;

line wire{.terminator = "\r"};

// Sends a command, on the open line: false after the failure `text`.
bool tell(turn &t, const std::string &command, const char *text) {
    if (t.tell(command).ok())
        return true;
    say(t.who(), "%s", text);
    return false;
}

std::string address() {
    const Variable *chosen = get_variable("tti_address");
    return chosen && chosen->type == vt_string ? chosen->StringVar : usual_address;
}

constexpr pt_format dummy_format(" dummy = %d");

int tti_open(int, int cn) {
    if (line_is_open(wire, {.cn = cn})) {
        sv_printf(cn, "# %s is already open\n", "tti psu");
        return -1;
    }
    const std::string host = address();
    connection link = open_tcp(cn, host.c_str(), tti_port, "tti psu");
    if (!link.fd)
        return -1;
    line_opened(wire, std::move(link));
    turn t(wire, {.cn = cn}, "");
    if (t && tell(t, "ovp1 4.8;ovp2 4.8;i1 0.05;i2 0.05;ocp1 0.1;ocp2 0.1;opall 1",
                  "! ERROR tti initialise failed\n"))
        return 0;
    return -1;
}

int tti_close(int, int cn) {
    if (!wire.open) {
        sv_printf(cn, "# %s is not open\n", "tti psu");
        return -1;
    }
    line_close(wire);
    sv_printf(cn, "# Disconnected from tti psu \n");
    return 0;
}

constexpr pt_format set_format(" %g channel %d = %d");

int tti_set(int quals, int cn, double volts) {
    const int channel = pt_qualifiers<set_format>(quals).number("channel", first_channel);
    if (!(volts >= least_volts && volts <= most_volts)) {
        sv_printf(cn, "! ERROR voltage range is %f..%f\n", least_volts, most_volts);
        return -1;
    }
    if (channel < first_channel || channel > last_channel) {
        sv_printf(cn, "! ERROR psu channel range is %d..%d\n", first_channel, last_channel);
        return -1;
    }
    turn t(wire, {.cn = cn}, text_of("# %s is not open\n", "tti psu"));
    return t && tell(t, text_of("v%d %f", channel, volts + 0.0), "! ERROR Failed to write to tti psu\n") ? 0
                                                                                                         : -1;
}

} // namespace

void tti_exit() {
    line_close(wire);
}

constinit const PARSE_TREE row_tti_open = pt_command<tti_open>(
    "tti-open", dummy_format, "connect to the bench supply and switch its outputs on", "Without effect");
constinit const PARSE_TREE row_tti_close =
    pt_command<tti_close>("tti-close", dummy_format, "disconnect from the bench supply", "Without effect");
constinit const PARSE_TREE row_tti_set = pt_command<tti_set>(
    "tti-set", set_format, "set a voltage of the bench supply", "Volts, 0..4.6/Channel, 1 (default) or 2");

} // namespace kestrel::bench
