// sim/instruments: the source-meter's commands.
#include "sim/instruments/models.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace kestrel {

ke2410_model ke2410;

namespace {

constexpr double volts_max = 1100.0, amperes_max = 1.05;
constexpr std::size_t messages_max = 10;

std::string number(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%+.6E", value);
    return text;
}

void message(const char *text) {
    if (ke2410.messages.size() < messages_max)
        ke2410.messages.emplace_back(text);
}

std::string oldest_message() {
    if (ke2410.messages.empty())
        return "0,\"No error\"";
    const std::string text = ke2410.messages.front();
    ke2410.messages.pop_front();
    return text;
}

// With automatic output-off a measurement switches the output on for itself.
std::string measure() {
    const bool before = ke2410.output;
    ke2410.output = before || ke2410.auto_off;
    const std::string text =
        number(ke2410.volts()) + "," + number(ke2410.amperes()) + "," + number(bench_now());
    ke2410.output = before && !ke2410.auto_off;
    return text;
}

bool is_on(const std::string &argument) {
    return argument == "1" || argument == "ON";
}

void reset(const std::string &) {
    const load detector = ke2410.detector;
    ke2410 = {.detector = detector};
}
// A change of the source switches the output off.
void function(const std::string &argument) {
    const bool current = argument.starts_with("CURR");
    ke2410.output = ke2410.output && current == ke2410.current_source;
    ke2410.current_source = current;
}
void bounded(const std::string &argument, double most, double &value) {
    double wanted = 0.0;
    if (!scpi_number(argument, wanted))
        message("-104,\"Data type error\"");
    else if (std::abs(wanted) > most)
        message("-222,\"Parameter data out of range\"");
    else
        value = wanted;
}
void level(const std::string &argument) {
    bounded(argument, volts_max, ke2410.level);
}
void protection(const std::string &argument) {
    if (argument == "NONE")
        ke2410.protection = volts_max;
    else
        bounded(argument, volts_max, ke2410.protection);
}
void compliance(const std::string &argument) {
    bounded(argument, amperes_max, ke2410.compliance);
}
void output(const std::string &argument) {
    ke2410.output = is_on(argument);
}
void auto_off(const std::string &argument) {
    ke2410.auto_off = is_on(argument);
}
void clear(const std::string &) {
    ke2410.messages.clear();
}
void nothing(const std::string &) {}

struct row {
    std::string_view header;
    void (*take)(const std::string &);
};
constexpr row commands[] = {
    {"*RST", reset},
    {"SENS:FUNC:CONC", nothing},
    {"SENS:VOLT:RANG:AUTO", nothing},
    {"SENS:CURR:RANG:AUTO", nothing},
    {"SENS:CURR:RANG", nothing},
    {"SENS:FUNC", nothing},
    {"FORM:ELEM:SENS", nothing},
    {"SENS:CURR:PROT:RSYN", nothing},
    {"SENS:CURR:PROT:LEV", compliance},
    {"SENS:CURR:PROT", compliance},
    {"SOUR:FUNC", function},
    {"SOUR:VOLT:MODE", nothing},
    {"SOUR:VOLT:RANG", nothing},
    {"SOUR:VOLT:RANG:AUTO", nothing},
    {"SOUR:VOLT:LEV", level},
    {"SOUR:VOLT:PROT", protection},
    {"SOUR:CLE:AUTO", auto_off},
    {"OUTP:STAT", output},
    {"STAT:CLE", clear},
};

struct question {
    std::string_view header;
    std::string (*answer)();
};
constexpr question questions[] = {
    {"*IDN?", [] { return std::string("KEITHLEY INSTRUMENTS INC.,MODEL 2410,0000001,C30"); }},
    {"SOUR:VOLT:LEV?", [] { return number(ke2410.level); }},
    {"SOUR:VOLT:PROT?", [] { return number(ke2410.protection); }},
    {"SENS:CURR:PROT?", [] { return number(ke2410.compliance); }},
    {"OUTP:STAT?", [] { return std::string(ke2410.output ? "1" : "0"); }},
    {"STAT:QUE?", oldest_message},
    {"READ?", measure},
};

} // namespace

double ke2410_model::volts() const {
    if (!output || current_source)
        return 0.0;
    return detector.held_at(std::clamp(level, -std::abs(protection), std::abs(protection)),
                            std::abs(compliance));
}

void ke2410_interlock() {
    ke2410.output = false;
    message("802,\"Output blocked by interlock\"");
}

reply ke2410_answer(std::string_view line) {
    const scpi_command split = scpi_split(line);
    for (const row &r : commands) {
        if (r.header == split.header) {
            r.take(split.argument);
            return {};
        }
    }
    for (const question &q : questions) {
        if (q.header == split.header)
            return {q.answer() + "\r\n"};
    }
    message("-113,\"Undefined header\"");
    return {};
}

} // namespace kestrel
