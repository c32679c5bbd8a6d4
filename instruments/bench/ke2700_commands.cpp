// `ke2700`: opening, measuring, its logger, and the table of its commands.
#include "instruments/bench/commands.h"
#include "instruments/bench/ke2700.h"
#include "parser/qualifiers.h"
#include "parser/variables.h"
#include "server/output.h"

#include <ctime>

namespace kestrel::bench {

namespace {

constexpr int usual_port = 1394;

constexpr pt_format open_format(" port %s ke7700 debug b9600 ip-addr %s ip-port %d telnet = %d");

int open(int quals, int cn) {
    const pt_qualifiers<open_format> q(quals);
    const open_wishes wishes = {q.text("port"),
                                q.text("ip-addr"),
                                q.number_if_given("ip-port"),
                                usual_port,
                                q.given("telnet"),
                                q.given("debug"),
                                q.given("b9600") ? speed_t{B9600} : speed_t{B19200}};
    if (!keithley_open(cn, ke2700.wire, ke2700.log, ke2700.device, "Keithley 2700", wishes))
        return -1;
    ke2700.card = q.given("ke7700");
    ke2700_turn t({.cn = cn});
    return t && ke2700_tell(t, "VOLT:DC:RANG 10") ? 0 : -1;
}

int close(int, int cn) {
    if (!ke2700.wire.open) {
        logger_end(cn, ke2700.log);
        sv_printf(cn, "# %s is not open\n", ke2700.device.c_str());
        return -1;
    }
    logger_end(cn, ke2700.log);
    line_close(ke2700.wire);
    sv_printf(cn, "# Closed %s\n", ke2700.wire.name.c_str());
    return 0;
}

pt_string send(int, int cn, const char *command) {
    if (!is_one_command(cn, command))
        return std::nullopt;
    ke2700_turn t({.cn = cn});
    if (!t)
        return std::nullopt;
    if (std::string_view(command).find('?') != std::string_view::npos)
        return ke2700_ask(t, command);
    return ke2700_tell(t, command) ? pt_string("") : std::nullopt;
}

constexpr pt_format measure_format(" samples %d channel %d var %s = %d");

int measure(int quals, int cn) {
    const pt_qualifiers<measure_format> q(quals);
    const int samples = q.number("samples", 1), channel = q.number("channel", 9);
    if (!samples_fit(cn, samples) || !ke2700_channel_fits(cn, channel))
        return -1;
    const std::string variable = q.text("var");
    ke2700_turn t({.cn = cn});
    const std::optional<statistics> found = t ? ke2700_measure(t, samples, channel) : std::nullopt;
    if (!found)
        return -1;
    ke2700.last = *found;
    sv_printf(cn, "# mean = %.8f, std dev= %.8f\n", found->mean, found->stddev);
    if (q.given("var") && (set_double_variable(cn, variable + ".mean", found->mean, true) != 0 ||
                           set_double_variable(cn, variable + ".stddev", found->stddev, true) != 0))
        return -1;
    return 0;
}

double get_mean(int, int) {
    return ke2700.last.mean;
}
double get_stdev(int, int) {
    return ke2700.last.stddev;
}

// ---------------------------------------------------------------- the logger

std::optional<std::string> measure_point(const waiter &who, const log_wishes &wishes) {
    ke2700_turn t(who);
    const std::optional<statistics> found =
        t ? ke2700_measure(t, wishes.samples, wishes.channel) : std::nullopt;
    if (!found)
        return std::nullopt;
    if (wishes.debug)
        say(who, "Keithley Logger: Mean=%g\n", found->mean);
    return text_of("%d\t%g\n", static_cast<int>(std::time(nullptr)), found->mean);
}

constexpr pt_format
    start_format("%s truncate period %d samples %d channel %d debug roll max-len %d xh %s = %d");

int start_log(int quals, int cn, const char *file) {
    const pt_qualifiers<start_format> q(quals);
    if (!ke2700.wire.open) {
        sv_printf(cn, "# %s is not open\n", ke2700.device.c_str());
        return -1;
    }
    const int channel = q.number("channel", 9);
    if (!ke2700_channel_fits(cn, channel))
        return -1;
    return logger_start(cn, ke2700.log,
                        {.file = file,
                         .header = q.text("xh"),
                         .truncate = q.given("truncate"),
                         .roll = q.given("roll"),
                         .max_len = q.number("max-len", 0),
                         .debug = q.given("debug"),
                         .period = q.number("period", 10),
                         .samples = q.number("samples", 1),
                         .channel = channel});
}

int stop_log(int, int cn) {
    return logger_stop(cn, ke2700.log);
}
int pause_log(int, int cn) {
    return logger_pause(cn, ke2700.log);
}
int continue_log(int, int cn) {
    return logger_continue(cn, ke2700.log);
}

} // namespace

ke2700_state ke2700{.wire = {}, .log = {"KE2700", "ke2700", ke2700.wire, measure_point}};

constinit const PARSE_TREE ke2700_tree[] = {
    pt_command<open>("open", open_format, "connect to the multimeter",
                     "Serial device/A switching card is in slot 1/Show what is sent and received/"
                     "9600 baud, not 19200/Host, for TCP/TCP port (1394)/TCP port 23"),
    pt_command<close>("close", " = %d", "close the connection", ""),
    pt_row(row_ke2700_set_range),
    pt_row(row_ke2700_set_filter),
    pt_command<send>("send", "%s = %s", "send a command of your own, unchecked", "Command"),
    pt_command<measure>("measure", measure_format, "measure the mean and its standard deviation",
                        "Number of samples 1..50/Channel of the card 9..10 (9)/"
                        "Variable whose .mean and .stddev are set"),
    pt_command<get_mean>("get-mean", " = %g", "get the last mean", ""),
    pt_command<get_stdev>("get-stdev", " = %g", "get the last standard deviation", ""),
    pt_command<start_log>(
        "start-log", start_format, "log means into a file",
        "File/Empty the file first/Seconds between points (10)/Samples of a point, 1..49 (1)/"
        "Channel of the card 9..10 (9)/Show each point/Move the file aside when it is too long/"
        "Bytes that are too long/Text for a new file's first line"),
    pt_command<stop_log>("stop-log", " = %d", "stop logging", ""),
    pt_command<pause_log>("pause-log", " = %d", "let the logger wait", ""),
    pt_command<continue_log>("continue-log", " = %d", "let the logger go on", ""),
    pt_row(row_tti_open),
    pt_row(row_tti_close),
    pt_row(row_tti_set),
    pt_end(),
};

} // namespace kestrel::bench
