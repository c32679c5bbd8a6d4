#include "files/kiln_header.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace kestrel {

namespace {

constexpr std::size_t name_length = 10, kind_at = 5;
constexpr std::size_t log_rule = 79; // characters of the line that ends an entry

const char *weekday(const std::tm &when) {
    constexpr const char *names[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                     "Thursday", "Friday", "Saturday"};
    return names[when.tm_wday];
}

kiln_line area_line(const kiln_header &h, const kiln_detector &d, char kind) {
    const bool flat = d.rasters == 0;
    return {
        {d.pixels, flat ? h.frames : d.rasters, flat ? 1 : h.frames, h.intel, 0, d.code, d.display, 0, 0, 1},
        kiln_data_name(h.name, kind)};
}

std::string numbers_text(const kiln_line &line, const char *line_end) {
    const auto &n = line.numbers;
    char text[160];
    std::snprintf(text, sizeof text, "%7d %7d %7d %7d %7d %7d %7d %7d %7d %7d%s", n[0], n[1], n[2], n[3],
                  n[4], n[5], n[6], n[7], n[8], n[9], line_end);
    return text;
}

std::string first_line(const kiln_header &h, const std::tm &t, const char *line_end) {
    char text[256];
    const int month = t.tm_mon + 1, year = t.tm_year % 100;
    if (h.title.empty())
        std::snprintf(text, sizeof text, "Created from kestrel on %s %d/%d/%02d at %d:%02d:%02d%s",
                      weekday(t), t.tm_mday, month, year, t.tm_hour, t.tm_min, t.tm_sec, line_end);
    else
        std::snprintf(text, sizeof text, "Created at %s on %s %d/%d/%02d at %d:%02d:%02d%s", h.title.c_str(),
                      weekday(t), t.tm_mday, month, year, t.tm_hour, t.tm_min, t.tm_sec, line_end);
    return text;
}

// Takes the next line off the text, without its end.
std::string_view take_line(std::string_view &text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

bool parse_numbers(std::string_view line, std::array<int, 10> &numbers) {
    for (int &number : numbers) {
        line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
        const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number);
        if (error != std::errc())
            return false;
        line.remove_prefix(static_cast<std::size_t>(end - line.data()));
        if (!line.empty() && line.front() != ' ')
            return false;
    }
    return line.find_first_not_of(' ') == std::string_view::npos;
}

std::time_t system_clock() {
    return std::time(nullptr);
}

} // namespace

std::time_t (*kiln_clock)() = system_clock;

std::tm kiln_local_time() {
    const std::time_t now = kiln_clock();
    std::tm parts{};
    ::localtime_r(&now, &parts);
    return parts;
}

std::vector<kiln_line> kiln_lines(const kiln_header &h) {
    std::vector<kiln_line> lines;
    if (h.saxs.pixels > 0)
        lines.push_back(area_line(h, h.saxs, kiln_saxs));
    if (h.calib_channels > 0)
        lines.push_back({{h.frames, h.calib_channels, 1, h.intel, 0, h.calib_code, h.calib_display, 0, 0, 1},
                         kiln_data_name(h.name, kiln_calib)});
    if (h.waxs.pixels > 0)
        lines.push_back(area_line(h, h.waxs, kiln_waxs));
    lines.push_back({{h.frames, h.time_v1 ? 8 : 4, 1, h.intel, 0, h.time_v1, 0, 0, 0, 0},
                     kiln_data_name(h.name, kiln_times)});
    return lines;
}

std::string kiln_text(const kiln_header &h, const std::tm &when, const char *line_end) {
    std::string text = first_line(h, when, line_end);
    text.append(h.comment).append(line_end);
    for (const kiln_line &line : kiln_lines(h))
        text.append(numbers_text(line, line_end)).append(line.file).append(line_end);
    for (const std::string &extra : h.extras)
        text.append(extra).append(line_end);
    return text;
}

std::optional<std::vector<kiln_line>> kiln_parse(std::string_view text) {
    take_line(text);
    take_line(text);
    std::vector<kiln_line> lines;
    while (!text.empty()) {
        kiln_line line;
        const bool good = parse_numbers(take_line(text), line.numbers);
        line.file = take_line(text);
        if (!good || line.file.size() != name_length)
            return std::nullopt;
        lines.push_back(std::move(line));
        if (lines.back().file[kind_at] == kiln_times)
            return lines;
    }
    return std::nullopt;
}

std::string kiln_log_entry(const kiln_header &h, const std::tm &t, const char *line_end,
                           std::span<const std::string> summary) {
    char first[128];
    std::snprintf(first, sizeof first, "%s Created on %s %d/%d/%d at %d:%02d:%02d%s", h.name.c_str(),
                  weekday(t), t.tm_mday, t.tm_mon + 1, t.tm_year % 100, t.tm_hour, t.tm_min, t.tm_sec,
                  line_end);
    std::string text = first;
    text.append(h.comment).append(line_end);
    for (const std::string &line : summary)
        text.append(line).append(line_end);
    return text.append(log_rule, '=').append(line_end);
}

bool kiln_is_name(std::string_view name) {
    const char first = name.empty() ? '\0' : static_cast<char>(name.front() | 0x20);
    return name.size() == name_length && first >= 'a' && first <= 'z' && name.substr(3, 4) == "000.";
}

std::string kiln_data_name(std::string_view header, char kind) {
    std::string name(header);
    name[kind_at] = kind;
    return name;
}

std::string kiln_name(char letter, int sequence, std::string_view stamp) {
    char text[16];
    std::snprintf(text, sizeof text, "%c%02d000.", letter, sequence);
    return text + std::string(stamp);
}

std::string kiln_stamp(const std::tm &when) {
    char text[16];
    std::snprintf(text, sizeof text, "%c%02d", "X123456789ABC"[when.tm_mon + 1], when.tm_mday);
    return text;
}

int kiln_display_of(std::uint32_t code) {
    switch (code >> 28) {
    case 1:
        return 0x10000000;
    case 2:
        return 0x30000000;
    default:
        return 0;
    }
}

} // namespace kestrel
