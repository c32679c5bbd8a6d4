// `ke2410 start-log` and the others: what its logger measures.
#include "instruments/bench/ke2410.h"
#include "parser/qualifiers.h"
#include "server/output.h"

#include <ctime>

namespace kestrel::bench {

namespace {

// A point is the mean of its samples, with the output state and the set point of the same moment.
std::optional<std::string> measure(const waiter &who, const log_wishes &wishes) {
    ke2410_turn t(who);
    if (!t)
        return std::nullopt;
    ke2410_reading mean;
    for (int n = 0; n < wishes.samples; ++n) {
        const std::optional<ke2410_reading> one = ke2410_read(t);
        if (!one)
            return std::nullopt;
        mean.volts += one->volts / wishes.samples;
        mean.amperes += one->amperes / wishes.samples;
    }
    const std::optional<bool> on = ke2410_output_on(t);
    const std::optional<double> level = on ? ke2410_level(t) : std::nullopt;
    if (!level)
        return std::nullopt;
    if (wishes.debug)
        say(who, "Keithley Logger: Opstate=%d, V=%g, Vs=%g, Ibias=%g\n", *on, mean.volts, *level,
            mean.amperes);
    return text_of("%d\t%d\t%g\t%g\t%g\n", static_cast<int>(std::time(nullptr)), *on, mean.volts, *level,
                   mean.amperes);
}

constexpr pt_format start_format("%s truncate period %d samples %d debug roll max-len %d xh %s = %d");

int start_log(int quals, int cn, const char *file) {
    const pt_qualifiers<start_format> q(quals);
    if (!ke2410.wire.open) {
        sv_printf(cn, "! ERROR: Please open TTY using ke2410 config first\n");
        return -1;
    }
    return logger_start(cn, ke2410.log,
                        {.file = file,
                         .header = q.text("xh"),
                         .truncate = q.given("truncate"),
                         .roll = q.given("roll"),
                         .max_len = q.number("max-len", 0),
                         .debug = q.given("debug"),
                         .period = q.number("period", 10),
                         .samples = q.number("samples", 1)});
}

int stop_log(int, int cn) {
    return logger_stop(cn, ke2410.log);
}
int pause_log(int, int cn) {
    return logger_pause(cn, ke2410.log);
}
int continue_log(int, int cn) {
    return logger_continue(cn, ke2410.log);
}

} // namespace

ke2410_state ke2410{.wire = {}, .log = {"KE2410", "KE2410", ke2410.wire, measure}};

constinit const PARSE_TREE row_ke2410_start_log = pt_command<start_log>(
    "start-log", start_format, "log voltage and current into a file",
    "File/Empty the file first/Seconds between points (10)/Samples of a point, 1..49 (1)/Show each point/"
    "Move the file aside when it is too long/Bytes that are too long/Text for a new file's first line");
constinit const PARSE_TREE row_ke2410_stop_log =
    pt_command<stop_log>("stop-log", " = %d", "stop logging", "");
constinit const PARSE_TREE row_ke2410_pause_log =
    pt_command<pause_log>("pause-log", " = %d", "let the logger wait", "");
constinit const PARSE_TREE row_ke2410_continue_log =
    pt_command<continue_log>("continue-log", " = %d", "let the logger go on", "");

} // namespace kestrel::bench
