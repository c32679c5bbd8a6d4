#include "instruments/bench/ke2410.h"

#include "instruments/bench/numbers.h"

#include <cmath>
#include <cstring>

namespace kestrel::bench {

namespace {

constexpr double low_volts = 1.0; // a set point up to this does no harm

// Prints why an answer did not come; a logger that is stopped says nothing.
void say_no_answer(const turn &t, const answer &got) {
    if (got.status == answer_status::overrun)
        say(t.who(), "! ERROR: Over run receiving data, modify code for longer buffers?\n");
    else if (got.status != answer_status::interrupted)
        say(t.who(), "! ERROR reading from Keithley 2410 PSU: retval=%d, errorno=%d, descr=%s\n", got.retval,
            got.error, got.error ? std::strerror(got.error) : "it closed the connection");
    else if (t.who().stop < 0)
        say(t.who(), "! ERROR: Read stopped with ^C, Hope this is OK\n");
}

// The answer, through one ^C beyond the first `seen`: a second one may come before the first is told of.
answer hear_through_interrupt(turn &t, int seen) {
    const auto begun = std::chrono::steady_clock::now();
    answer got = t.hear(patience_ms, seen);
    if (got.status != answer_status::interrupted || t.who().stop >= 0)
        return got;
    say(t.who(), "# Ke2410 read interrupted with ^C, retrying read ^c again to stop\n");
    const auto gone = std::chrono::steady_clock::now() - begun;
    const auto left = patience_ms - std::chrono::duration_cast<std::chrono::milliseconds>(gone).count();
    return t.hear(static_cast<int>(std::max<long long>(left, 0)), seen + 1);
}

} // namespace

ke2410_turn::ke2410_turn(const waiter &who)
    : turn(ke2410.wire, who, "! ERROR: Please open TTY using ke2410 config first\n") {}

bool ke2410_tell(turn &t, const std::string &command) {
    if (t.debug())
        say(t.who(), "# Keithley 2410: Sending '%s'\n", command.c_str());
    const answer sent = t.tell(command, t.interrupts()); // one ^C ends no exchange
    if (!sent.ok())
        say(t.who(), "! ERROR Failed to write to KE2410 PSU: retval=%d, errorno=%d, descr=%s\n", sent.retval,
            sent.error, sent.error ? std::strerror(sent.error) : "it closed the connection");
    return sent.ok();
}

std::optional<std::string> ke2410_ask(turn &t, const std::string &command) {
    const int seen = t.interrupts();
    if (!ke2410_tell(t, command))
        return std::nullopt;
    answer got = hear_through_interrupt(t, seen);
    if (!got.ok()) {
        say_no_answer(t, got);
        return std::nullopt;
    }
    if (t.debug())
        say(t.who(), "# Keithley 2410 :.... Received '%s' len %d\n", got.text.c_str(),
            static_cast<int>(got.text.size()));
    return std::move(got.text);
}

std::optional<double> ke2410_number(turn &t, const std::string &command) {
    const std::optional<std::string> text = ke2410_ask(t, command);
    const std::optional<double> value = text ? whole_number(*text) : std::nullopt;
    if (text && !value) {
        say(t.who(), "! ERROR: Keithley 2410 answered '%s' to '%s', which is no number\n", text->c_str(),
            command.c_str());
        t.distrust();
    }
    return value;
}

// Steps are counted from the level, so an answer to an earlier question must not be taken for it: while there may be one
// on its way, two answers must be the same.
std::optional<double> ke2410_level(turn &t) {
    const std::optional<double> level = ke2410_number(t, ":SOUR:VOLT:LEV?");
    if (!level)
        return std::nullopt;
    if (std::abs(*level) > ke2410_volts_max) {
        say(t.who(), "! ERROR: Keithley 2410 reports a level of %g V, which it cannot have\n", *level);
        t.distrust();
        return std::nullopt;
    }
    if (!t.doubtful())
        return level;
    const std::optional<double> again = ke2410_number(t, ":SOUR:VOLT:LEV?");
    if (again && *again != *level) {
        say(t.who(), "! ERROR: Keithley 2410 answers out of step, with a level of %g V and of %g V\n", *level,
            *again);
        t.distrust();
        return std::nullopt;
    }
    t.trust();
    return again;
}

std::optional<bool> ke2410_output_on(turn &t) {
    const std::optional<double> state = ke2410_number(t, ":OUTP:STAT?");
    if (!state)
        return std::nullopt;
    if (*state != 0.0 && *state != 1.0) {
        say(t.who(), "! ERROR: Keithley 2410 reports an output state of %g, which is neither 0 nor 1\n",
            *state);
        t.distrust();
        return std::nullopt;
    }
    return *state == 1.0;
}

std::optional<ke2410_reading> ke2410_read(turn &t) {
    const std::optional<std::string> text = ke2410_ask(t, ":READ?");
    if (!text)
        return std::nullopt;
    const std::vector<double> values = readings(*text);
    if (values.size() < 2) {
        say(t.who(), "! ERROR: Keithley 2410 answered '%s' to ':READ?', which is no reading\n",
            text->c_str());
        t.distrust();
        return std::nullopt;
    }
    return ke2410_reading{values[0], values[1]};
}

bool ke2410_may_unleash(turn &t) {
    const std::optional<double> level = ke2410_level(t);
    if (!level)
        return false;
    if (std::abs(*level) <= low_volts || (ke2410.has_limits() && ke2410.within_limits(*level)))
        return true;
    say(t.who(),
        "! ERROR: The set point of %g V is not within the software voltage limits, nothing was changed\n",
        *level);
    return false;
}

} // namespace kestrel::bench
