#include "instruments/bench/ke2700.h"

#include "server/output.h"

#include <cstring>

namespace kestrel::bench {

namespace {

constexpr int first_channel = 9, last_channel = 10;
constexpr int ms_a_sample = 1000; // more to wait for each

const char *why(int error) {
    return error ? std::strerror(error) : "it closed the connection";
}

} // namespace

ke2700_turn::ke2700_turn(const waiter &who)
    : turn(ke2700.wire, who, text_of("# %s is not open\n", ke2700.device.c_str())) {}

bool ke2700_tell(turn &t, const std::string &command) {
    if (t.debug())
        say(t.who(), "# Keithley 2700: Sending '%s'\n", command.c_str());
    const answer sent = t.tell(command);
    if (!sent.ok())
        say(t.who(), "! ERROR Failed to write to KE2700: retval=%d, errorno=%d, descr=%s\n", sent.retval,
            sent.error, why(sent.error));
    return sent.ok();
}

std::optional<std::string> ke2700_ask(turn &t, const std::string &command, int wait_ms) {
    if (!ke2700_tell(t, command))
        return std::nullopt;
    answer got = t.hear(wait_ms, 0);
    if (got.ok()) {
        if (t.debug())
            say(t.who(), "# Keithley 2700 :.... Received '%s' len %d\n", got.text.c_str(),
                static_cast<int>(got.text.size()));
        return std::move(got.text);
    }
    if (got.status == answer_status::overrun)
        say(t.who(), "! ERROR: Over run receiving data, modify code for longer buffers?\n");
    else if (got.status != answer_status::interrupted)
        say(t.who(), "! ERROR reading from Keithley 2700: retval=%d, errorno=%d, descr=%s\n", got.retval,
            got.error, why(got.error));
    else if (t.who().stop < 0)
        say(t.who(), "! ERROR: Read from Keithley 2700 stopped with ^C\n");
    return std::nullopt;
}

std::optional<statistics> ke2700_measure(turn &t, int samples, int channel) {
    if (ke2700.card && !ke2700_tell(t, text_of("ROUT:CLOS (@1%02d)", channel)))
        return std::nullopt;
    if (!ke2700_tell(t, text_of("SAMP:COUN %d", samples)))
        return std::nullopt;
    const std::optional<std::string> text = ke2700_ask(t, "READ?", patience_ms + samples * ms_a_sample);
    if (!text)
        return std::nullopt;
    const std::vector<double> values = readings(*text);
    if (values.empty()) {
        say(t.who(), "! ERROR: Keithley 2700 answered '%s' to 'READ?', which is no reading\n", text->c_str());
        t.distrust();
        return std::nullopt;
    }
    if (static_cast<int>(values.size()) != samples)
        say(t.who(), "# Warning : samples requested %d != samples received %d\n", samples,
            static_cast<int>(values.size()));
    return statistics_of(values);
}

bool ke2700_channel_fits(int cn, int channel) {
    if (channel >= first_channel && channel <= last_channel)
        return true;
    sv_printf(cn, "! ERROR: Channel %d is out of range %d...%d\n", channel, first_channel, last_channel);
    return false;
}

} // namespace kestrel::bench
