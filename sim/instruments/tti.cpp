// sim/instruments: the bench supply's commands, several on a line between semicolons.
#include "sim/instruments/models.h"

namespace kestrel {

std::array<tti_channel, 2> tti;

namespace {

struct setting {
    std::string_view name;
    double tti_channel::*value;
};
constexpr setting settings[] = {
    {"ovp", &tti_channel::volts_max},
    {"ocp", &tti_channel::amperes_max},
    {"v", &tti_channel::volts},
    {"i", &tti_channel::amperes},
};

// "v2 4.5"; what it does not know the supply passes over.
void take(std::string_view command) {
    const std::size_t blank = command.find(' ');
    double value = 0.0;
    if (blank == std::string_view::npos || !scpi_number(command.substr(blank + 1), value))
        return;
    const std::string_view word = command.substr(0, blank);
    if (word == "opall") {
        for (tti_channel &c : tti)
            c.on = value != 0.0;
        return;
    }
    for (const setting &s : settings) {
        if (word.size() == s.name.size() + 1 && word.starts_with(s.name) &&
            (word.back() == '1' || word.back() == '2'))
            tti[word.back() == '1' ? 0 : 1].*s.value = value;
    }
}

} // namespace

reply tti_answer(std::string_view line) {
    while (!line.empty()) {
        const std::size_t end = line.find(';');
        take(line.substr(0, end));
        line = end == std::string_view::npos ? std::string_view() : line.substr(end + 1);
    }
    for (tti_channel &c : tti) {
        if (c.volts_max > 0.0 && c.volts > c.volts_max)
            c.on = false;
    }
    return {};
}

} // namespace kestrel
