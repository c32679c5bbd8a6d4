#include "stream/entries.h"

#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <limits>

namespace kestrel::stream {

namespace {

constexpr std::size_t words_max = std::size_t{1}
                                  << 28; // of a frame: 1 GiB, twice what a string of the broker holds

constexpr std::size_t axis_max = std::numeric_limits<int>::max(); // of a module

// JSON knows no other numbers.
std::string json_number(double value) {
    if (!std::isfinite(value))
        return "null";
    char text[40];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

std::string json_dead_time(const channel_dead_time &d) {
    return "{\"all_event\":" + json_number(d.all_event) +
           ",\"all_event_rate\":" + json_number(d.all_event_rate) +
           ",\"in_window\":" + json_number(d.in_window) +
           ",\"in_window_rate\":" + json_number(d.in_window_rate) +
           ",\"omitted\":" + (d.omitted ? "true" : "false") +
           ",\"use_good_events\":" + (d.use_good_events ? "true" : "false") + "}";
}

std::optional<std::uint64_t> number_of(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

} // namespace

std::string meta_key(const std::string &run) {
    return run + ":meta";
}

std::string frames_key(const std::string &run, int card) {
    return run + ":f:" + std::to_string(card);
}

std::string scalers_key(const std::string &run) {
    return run + ":s";
}

std::string payload_key(const std::string &run, int card, std::uint64_t frame) {
    return run + ":d:" + std::to_string(card) + ":" + std::to_string(frame);
}

std::string run_id_of(std::int64_t begun_us) {
    const std::time_t seconds = begun_us / 1000000;
    std::tm time{};
    gmtime_r(&seconds, &time);
    char text[64];
    const std::size_t size = std::strftime(text, sizeof text, "%Y%m%dT%H%M%S", &time);
    std::snprintf(text + size, sizeof text - size, ".%06dZ", static_cast<int>(begun_us % 1000000));
    return text;
}

std::string entry_id(std::uint64_t frame) {
    return std::to_string(frame + 1) + "-0";
}

std::optional<std::uint64_t> frame_of_entry(std::string_view id) {
    const auto number = id.ends_with("-0") ? number_of(id.substr(0, id.size() - 2)) : std::nullopt;
    return number && *number > 0 ? std::optional(*number - 1) : std::nullopt;
}

std::string shape_text(const card_shape &c) {
    std::string text = std::to_string(c.channels);
    for (const std::size_t n : {c.auxiliaries, c.energies, c.places, c.module_channels, c.first_channel})
        text += "," + std::to_string(n);
    return text;
}

std::optional<card_shape> shape_of_text(int index, std::string_view text) {
    std::array<std::size_t, 6> n{};
    for (std::size_t i = 0; i < n.size(); ++i) {
        const std::size_t end = std::min(text.find(','), text.size());
        const auto number = number_of(text.substr(0, end));
        if (!number || *number > words_max || (i < 5 && *number == 0))
            return std::nullopt;
        n[i] = *number;
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    const card_shape c{index, n[0], n[4], n[1], n[2], n[3], n[5]};
    const bool fits = text.empty() && c.auxiliaries * c.places <= axis_max &&
                      c.channels <= c.module_channels && c.module_channels <= 1024 &&
                      c.auxiliaries <= words_max / c.energies &&
                      c.auxiliaries * c.energies <= words_max / c.module_channels &&
                      c.auxiliaries * c.energies * c.module_channels <= (words_max << 8) / c.places;
    return fits ? std::optional(c) : std::nullopt;
}

std::string settings_json(const std::vector<card_seen> &cards) {
    std::string text = "{\"clock_period\":" + json_number(cards.empty() ? 0 : cards.front().clock_period) +
                       ",\"dead_time\":{";
    for (const card_seen &card : cards) {
        text += (&card == &cards.front() ? "\"" : ",\"") + std::to_string(card.shape.index) + "\":[";
        for (const channel_dead_time &d : card.dead_times)
            text += (&d == &card.dead_times.front() ? "" : ",") + json_dead_time(d);
        text += "]";
    }
    return text + "}}";
}

std::int64_t now_us() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace kestrel::stream
