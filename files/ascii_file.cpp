#include "files/ascii_file.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <utility>

namespace kestrel {

namespace {

constexpr std::string_view blanks = " \t\r\v\f";
constexpr std::string_view separators = " \t\r\v\f,";

std::string_view without_comment(std::string_view line) {
    return line.substr(0, line.find('#'));
}

// Calls f with each field; false when there is nothing between two commas or before the first, or f says so.
template <class F> bool for_each_field(std::string_view line, F &&f) {
    std::size_t at = 0;
    bool comma_wants_field = true; // a comma here would stand for an empty field
    while (at < line.size()) {
        const char c = line[at];
        if (blanks.find(c) != std::string_view::npos) {
            ++at;
        } else if (c == ',') {
            if (comma_wants_field)
                return f(std::string_view());
            comma_wants_field = true;
            ++at;
        } else {
            const std::size_t end = std::min(line.find_first_of(separators, at), line.size());
            if (!f(line.substr(at, end - at)))
                return false;
            comma_wants_field = false;
            at = end;
        }
    }
    return true;
}

enum class number_fault { none, no_number, range };

number_fault to_number(std::string_view text, double &value) {
    if (text.starts_with('+') && text.size() > 1 && text[1] != '-')
        text.remove_prefix(1);
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (code == std::errc::result_out_of_range)
        return number_fault::range;
    return code == std::errc() && end == text.data() + text.size() ? number_fault::none
                                                                   : number_fault::no_number;
}

std::string shown(std::string_view field) {
    constexpr std::size_t most = 40;
    std::string text;
    for (const char c : field.substr(0, most))
        text += c < ' ' || c > '~' ? '?' : c;
    return field.size() > most ? text + "..." : text;
}

} // namespace

bool ascii_parser::fail(std::string cause) {
    error_ = "line " + std::to_string(lines_) + ": " + std::move(cause);
    return false;
}

bool ascii_parser::take_id_row(std::string_view text) {
    for_each_field(text, [&](std::string_view field) {
        double value = 0.0;
        ids_.push_back(to_number(field, value) == number_fault::none ? value : 0.0);
        return ids_.size() < ascii_values_max;
    });
    return true;
}

bool ascii_parser::take_row(std::string_view text) {
    auto &values = table_.values;
    const std::size_t before = values.size();
    const bool taken = for_each_field(text, [&](std::string_view field) {
        if (field.empty())
            return fail("nothing between two commas");
        double value = 0.0;
        switch (to_number(field, value)) {
        case number_fault::none:
            values.push_back(value);
            return values.size() < ascii_values_max ||
                   fail("more than " + std::to_string(ascii_values_max) + " values");
        case number_fault::range:
            return fail("'" + shown(field) + "' is out of range");
        default:
            return fail("'" + shown(field) + "' is not a number");
        }
    });
    if (!taken)
        return false;
    const std::size_t count = values.size() - before;
    if (table_.ny == 0)
        table_.nx = static_cast<int>(count);
    if (count != static_cast<std::size_t>(table_.nx))
        return fail(std::to_string(count) + " values, the rows before have " + std::to_string(table_.nx));
    ++table_.ny;
    return true;
}

bool ascii_parser::line(std::string_view text) {
    ++lines_;
    text = without_comment(text);
    if (text.find_first_not_of(blanks) == std::string_view::npos)
        return true;
    if (std::exchange(first_, false) && id_row_)
        return take_id_row(text);
    return take_row(text);
}

bool ascii_parser::finish() {
    if (!ids_.empty()) {
        if (table_.ny == 0)
            table_.nx = static_cast<int>(ids_.size());
        ids_.resize(static_cast<std::size_t>(table_.nx));
        table_.values.insert(table_.values.begin(), ids_.begin(), ids_.end());
        ++table_.ny;
    }
    if (table_.ny == 0 || table_.nx == 0) {
        error_ = "no row of numbers";
        return false;
    }
    return true;
}

bool read_ascii(const std::function<long(std::span<char>)> &read, bool id_row, ascii_table &table,
                std::string &error) {
    constexpr std::size_t block_size = 1024 * 1024;
    ascii_parser parser(id_row);
    std::vector<char> block(block_size);
    std::string rest; // of a line that goes on in the next block
    for (;;) {
        const long got = read(block);
        if (got < 0) {
            error = "cannot be read: " + std::string(std::strerror(errno));
            return false;
        }
        std::string_view text(block.data(), static_cast<std::size_t>(got));
        bool good = true;
        for (std::size_t end; good && (end = text.find('\n')) != std::string_view::npos;
             text.remove_prefix(end + 1)) {
            if (rest.empty()) {
                good = parser.line(text.substr(0, end));
                continue;
            }
            rest += text.substr(0, end);
            good = parser.line(rest);
            rest.clear();
        }
        rest += good ? text : std::string_view();
        if (good && got == 0)
            good = (rest.empty() || parser.line(rest)) && parser.finish();
        if (good && rest.size() > ascii_line_max) {
            error = "a line of more than " + std::to_string(ascii_line_max) + " bytes";
            return false;
        }
        if (!good) {
            error = parser.error();
            return false;
        }
        if (got == 0)
            break;
    }
    table = std::move(parser.table());
    return true;
}

} // namespace kestrel
