#include "sim/instruments/instrument.h"

#include <cctype>
#include <charconv>
#include <chrono>
#include <cmath>

namespace kestrel {

bench_state bench;

double bench_now() {
    static const auto begun = std::chrono::steady_clock::now();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count() * bench.speed;
}

instrument *bench_find(std::string_view name) {
    for (instrument &i : bench.all) {
        if (i.name == name)
            return &i;
    }
    return nullptr;
}

namespace {

// Four letters, three when the fourth is a vowel; a suffix of 1 goes.
std::string short_form(std::string_view word) {
    const bool asks = word.ends_with('?');
    if (asks)
        word.remove_suffix(1);
    if (word.size() > 1 && word.ends_with('1'))
        word.remove_suffix(1);
    std::string text;
    for (const char c : word)
        text += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (text.size() > 4)
        text.resize(std::string_view("AEIOU").find(text[3]) == std::string_view::npos ? 4 : 3);
    return asks ? text + "?" : text;
}

std::string_view without_blanks(std::string_view text) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

} // namespace

scpi_command scpi_split(std::string_view line) {
    line = without_blanks(line);
    if (line.starts_with(':'))
        line.remove_prefix(1);
    const std::size_t blank = line.find(' ');
    scpi_command split;
    if (blank != std::string_view::npos)
        split.argument = without_blanks(line.substr(blank));
    for (std::string_view rest = line.substr(0, blank); !rest.empty();) {
        const std::size_t colon = rest.find(':');
        split.header += (split.header.empty() ? "" : ":") + short_form(rest.substr(0, colon));
        rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    }
    return split;
}

bool scpi_number(std::string_view text, double &value) {
    if (text.starts_with('+'))
        text.remove_prefix(1);
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() && std::isfinite(value);
}

} // namespace kestrel
