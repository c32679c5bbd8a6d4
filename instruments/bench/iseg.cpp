#include "instruments/bench/iseg.h"

#include "instruments/bench/keithley.h"
#include "server/output.h"
#include "server/wait.h"

#include <cstring>

namespace kestrel::bench {

iseg_state iseg;

namespace {

constexpr double poll_seconds = 0.5;
constexpr int trips_tolerated = 10;

bool hear(turn &t, answer &got) {
    got = t.hear(patience_ms, 0);
    if (got.status == answer_status::overrun)
        say(t.who(), "! ERROR: Over run receiving data, modify code for longer buffers?\n");
    else if (got.status == answer_status::interrupted)
        say(t.who(), "! ERROR: Read from ISEG stopped with ^C\n");
    else if (!got.ok())
        say(t.who(), "! ERROR reading from ISEG: retval=%d, errorno=%d, descr=%s\n", got.retval, got.error,
            got.error ? std::strerror(got.error) : "it closed the connection");
    return got.ok();
}

int length(const std::string &text) {
    return static_cast<int>(text.size());
}

} // namespace

iseg_turn::iseg_turn(const waiter &who)
    : turn(iseg.wire, who, "! ERROR: Please open TTY using iseg config first\n") {}

std::optional<std::string> iseg_ask(turn &t, const std::string &command) {
    const char *const sent = command.c_str();
    answer got = t.tell(command);
    if (!got.ok()) {
        say(t.who(), "! ERROR Failed to write to ISEG: retval=%d, errorno=%d, descr=%s\n", got.retval,
            got.error, got.error ? std::strerror(got.error) : "it closed the connection");
        return std::nullopt;
    }
    if (!hear(t, got))
        return std::nullopt;
    if (t.debug())
        say(t.who(), "# ECHO from ISEG Sent '%s' len %d received '%s' len %d\n", sent, length(command),
            got.text.c_str(), length(got.text));
    if (got.text != command) {
        say(t.who(), "! ERROR in response from ISEG Sent '%s' received '%s\n", sent, got.text.c_str());
        t.distrust();
        return std::nullopt;
    }
    if (!hear(t, got))
        return std::nullopt;
    if (t.debug())
        say(t.who(), "# Response from ISEG Sent '%s' len %d received '%s' len %d\n", sent, length(command),
            got.text.c_str(), length(got.text));
    if (got.text.starts_with('?')) {
        say(t.who(), "! ERROR: Command %s returned message '%s'\n", sent, got.text.c_str());
        return std::nullopt;
    }
    return std::move(got.text);
}

std::optional<double> iseg_number(turn &t, const std::string &command) {
    const std::optional<std::string> text = iseg_ask(t, command);
    const std::optional<double> value = text ? mantissa_exponent(*text) : std::nullopt;
    if (text && !value) {
        say(t.who(), "! ERROR: ISEG answered '%s' to '%s', which is no number\n", text->c_str(),
            command.c_str());
        t.distrust();
    }
    return value;
}

std::optional<iseg_status> iseg_get_status(turn &t, int channel) {
    const std::optional<std::string> whole = iseg_ask(t, text_of("S%d", channel));
    if (!whole)
        return std::nullopt;
    const std::string prefix = text_of("S%d=", channel);
    if (!whole->starts_with(prefix)) {
        say(t.who(), "! ERROR: ISEG answered '%s' to 'S%d', which is no status\n", whole->c_str(), channel);
        t.distrust();
        return std::nullopt;
    }
    std::string text = whole->substr(prefix.size());
    while (text.ends_with(' '))
        text.pop_back();
    return iseg_status{*whole, text};
}

std::optional<std::string> iseg_wait(int cn, int channel, bool quiet) {
    std::string last;
    for (int trips = 0;;) {
        { // a turn, which ends before the pause
            iseg_turn t({.cn = cn});
            const std::optional<iseg_status> status = t ? iseg_get_status(t, channel) : std::nullopt;
            if (!status)
                return std::nullopt;
            const std::optional<double> volts = quiet ? 0.0 : iseg_number(t, text_of("U%d", channel));
            if (!volts)
                return std::nullopt;
            if (!quiet)
                sv_printf(cn, "# Status= '%s' V=%g\n", status->whole.c_str(), *volts);
            trips += status->text == "TRP";
            const bool goes_on = status->text == "L2H" || status->text == "H2L" ||
                                 (status->text == "TRP" && trips <= trips_tolerated);
            if (!goes_on)
                return status->text;
            last = status->text;
        }
        if (sv_sleep(cn, poll_seconds) != 0)
            return last;
    }
}

} // namespace kestrel::bench
