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

// " on Sunday 1/2/06 at 9:05:07", with so many digits of the year at least.
std::string moment(const std::tm &when, int year_digits) {
    char text[128];
    std::snprintf(text, sizeof text, " on %s %d/%d/%0*d at %d:%02d:%02d", weekday(when), when.tm_mday,
                  when.tm_mon + 1, year_digits, when.tm_year % 100, when.tm_hour, when.tm_min, when.tm_sec);
    return text;
}

kiln_line area_line(const kiln_header &h, const kiln_detector &d, char kind) {
    const bool flat = d.rasters == 0;
    return {
        {d.pixels, flat ? h.frames : d.rasters, flat ? 1 : h.frames, h.intel, 0, d.code, d.display, 0, 0, 1},
        kiln_data_name(h.name, kind)};
}

std::string numbers_text(const kiln_line &line) {
    std::string text;
    for (const int number : line.numbers) {
        char field[16];
        std::snprintf(field, sizeof field, "%7d", number);
        text += text.empty() ? "" : " ";
        text += field;
    }
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

std::string kiln_text(const kiln_header &h, const std::tm &when, std::string_view line_end) {
    std::string text = h.title.empty() ? "Created from kestrel" : "Created at " + h.title;
    const auto end_line = [&] { text += line_end; };
    text += moment(when, 2);
    end_line();
    text += h.comment;
    end_line();
    for (const kiln_line &line : kiln_lines(h)) {
        text += numbers_text(line);
        end_line();
        text += line.file;
        end_line();
    }
    for (const std::string &extra : h.extras) {
        text += extra;
        end_line();
    }
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

std::string kiln_log_entry(const kiln_header &h, const std::tm &when, std::string_view line_end,
                           const std::vector<std::string> &summary) {
    std::string text = h.name + " Created" + moment(when, 1);
    text.append(line_end).append(h.comment).append(line_end);
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
