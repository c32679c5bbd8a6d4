// sim/instruments: the high-voltage supply's commands. It echoes each, and answers with a line of its own.
#include "sim/instruments/models.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace kestrel {

std::array<iseg_channel, 2> iseg;

namespace {

constexpr double microamperes = 1e6;

// Five digits at most and an exponent.
std::string mantissa(double value, int exponent, bool sign) {
    while (std::abs(value) / std::pow(10.0, exponent) > 99999.4)
        ++exponent;
    char text[40];
    std::snprintf(text, sizeof text, "%s%05.0f%+03d", sign ? value < 0.0 ? "-" : "+" : "",
                  std::abs(value) / std::pow(10.0, exponent), exponent);
    return text;
}

std::string padded(int digits, double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%0*d", digits, static_cast<int>(value));
    return text;
}

std::string status(int channel) {
    const iseg_channel &c = iseg[static_cast<std::size_t>(channel - 1)];
    const char *const text = c.tripped ? "TRP" : c.volts < c.goal ? "L2H" : c.volts > c.goal ? "H2L" : "ON ";
    return "S" + std::to_string(channel) + "=" + text;
}

std::string start_ramp(iseg_channel &c, int channel) {
    c.tripped = false;
    c.goal = c.set;
    return status(channel);
}

std::string ask(char letter, iseg_channel &c, int channel) {
    switch (letter) {
    case 'U':
        return mantissa(c.volts, -2, true);
    case 'I':
        return mantissa(c.detector.current(c.volts), -12, false);
    case 'M':
    case 'N':
        return "100";
    case 'D':
        return mantissa(c.set, -1, false);
    case 'L':
        return padded(4, c.trip);
    case 'V':
        return padded(3, c.speed);
    case 'G':
        return start_ramp(c, channel);
    case 'S':
        return status(channel);
    case 'T':
        return padded(3, 4 + (c.volts != c.goal ? 16 : 0) + (c.tripped ? 64 : 0));
    default:
        return "????";
    }
}

std::string set(char letter, iseg_channel &c, std::string_view digits) {
    int value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc() || end != digits.data() + digits.size() || value < 0)
        return "????";
    if (letter == 'D' && value > iseg_volts_max)
        return "? UMAX=" + padded(4, iseg_volts_max);
    if (letter == 'V' && (value < 2 || value > 255))
        return "????";
    double *const target = letter == 'D'   ? &c.set
                           : letter == 'V' ? &c.speed
                           : letter == 'L' ? &c.trip
                                           : nullptr;
    if (!target)
        return "????";
    *target = value;
    return "";
}

std::string respond(std::string_view line) {
    if (line == "#")
        return "484230;3.08;2000V;6mA";
    if (line.size() < 2)
        return "????";
    if (line[1] != '1' && line[1] != '2')
        return "?WCN";
    const int channel = line[1] - '0';
    iseg_channel &c = iseg[static_cast<std::size_t>(channel - 1)];
    c.advance();
    if (line.size() == 2)
        return ask(line[0], c, channel);
    return line[2] == '=' ? set(line[0], c, line.substr(3)) : "????";
}

} // namespace

void iseg_channel::advance() {
    const double now = bench_now(), far = speed * (now - checked);
    checked = now;
    volts = volts < goal ? std::min(volts + far, goal) : std::max(volts - far, goal);
    const double flows = std::abs(detector.current(volts));
    if (flows > iseg_amperes_max || (trip > 0.0 && flows * microamperes > trip)) {
        tripped = true;
        volts = goal = 0.0;
    }
}

reply iseg_answer(std::string_view line) {
    return {std::string(line) + "\r\n" + respond(line) + "\r\n"};
}

} // namespace kestrel
