#include "instruments/links/reply_reader.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace kestrel::links {

namespace {

constexpr std::string_view prompt = "> ";
constexpr std::string_view result_mark = "* ";
constexpr std::string_view question = "~ Retry (Y/N)"; // the only one that a server asks

// The one text that a server sends without a line end: the result stands behind it in the same line.
constexpr std::string_view open_line = "! dx, dy and dt must all be greater than zero.";

std::optional<int> parse_unsigned(std::string_view digits, int radix) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, radix);
    if (digits.empty() || error != std::errc{} || end != digits.data() + digits.size())
        return std::nullopt;
    return static_cast<int>(value);
}

template <class T> std::optional<T> parse_whole(std::string_view text) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::string_view strip(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    return text;
}

// "done total 'label'", as a server sends it in network mode.
std::optional<remote_progress> parse_progress(std::string_view text) {
    remote_progress out;
    text = strip(text);
    const std::size_t first = text.find(' ');
    if (first == std::string_view::npos)
        return std::nullopt;
    const std::optional<int> done = parse_whole<int>(text.substr(0, first));
    text = strip(text.substr(first));
    const std::size_t second = text.find(' ');
    const std::optional<int> total = parse_whole<int>(text.substr(0, second));
    if (!done || !total)
        return std::nullopt;
    out.done = *done;
    out.total = *total;
    std::string_view label =
        second == std::string_view::npos ? std::string_view() : strip(text.substr(second));
    if (label.size() >= 2 && label.front() == '\'' && label.back() == '\'')
        out.label = label.substr(1, label.size() - 2);
    return out;
}

} // namespace

std::optional<remote_result> parse_result(std::string_view text) {
    if (text == "(null)")
        return remote_null{};
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        return std::string(text.substr(1, text.size() - 2));
    std::optional<int> integer;
    if (text.starts_with('$'))
        integer = parse_unsigned(text.substr(1), 16);
    else if (text.starts_with('#'))
        integer = parse_unsigned(text.substr(1), 2);
    else
        integer = parse_whole<int>(text);
    if (integer)
        return *integer;
    if (const std::optional<double> real = parse_whole<double>(text))
        return *real;
    return std::nullopt;
}

// The prompt that ended the last exchange is used up, too.
void reply_reader::reset() {
    if (buffer_ == prompt)
        buffer_.clear();
    searched_ = 0;
    held_.clear();
    result_ = std::monostate{};
    after_result_ = ended_before_ = false;
    in_reply_ = true;
    at_prompt_ = false;
}

void reply_reader::clear() {
    buffer_.clear();
    taken_ = 0;
    in_pieces_ = false;
    reset();
    in_reply_ = false;
}

bool reply_reader::take_result(std::string_view text) {
    const std::optional<remote_result> result = parse_result(text);
    if (!result)
        return false;
    result_ = *result;
    after_result_ = true;
    return true;
}

namespace {

// What is shown to a session holds no byte that could steer its terminal or begin a telnet command.
void make_printable(std::string &text) {
    constexpr unsigned char blank = ' ', del = 127, iac = 255;
    for (char &c : text)
        if (const auto byte = static_cast<unsigned char>(c);
            (byte < blank && c != '\t') || byte == del || byte == iac)
            c = '?';
}

} // namespace

reply_event reply_reader::as_text(std::string_view line) {
    text_ = line;
    make_printable(text_);
    return reply_event::text;
}

reply_event reply_reader::classify(std::string_view line) {
    const char marker = line.empty() ? '\0' : line.front();
    as_text(line.empty() ? line : line.substr(line.size() > 1 && line[1] == ' ' ? 2 : 1));
    switch (marker) {
    case '#':
        return reply_event::information;
    case '!':
        return reply_event::error;
    case '~': // a remote that asks sends nothing more
        if (line == question && taken_ == buffer_.size())
            return reply_event::question;
        break;
    case '@':
        if (std::optional<remote_progress> progress = parse_progress(text_)) {
            progress_ = std::move(*progress);
            return reply_event::progress;
        }
        break;
    default:
        break;
    }
    return as_text(line);
}

reply_event reply_reader::take_line(std::string_view line) {
    after_result_ = false;
    result_ = std::monostate{};
    if (line.starts_with(prompt) && line.substr(prompt.size()).starts_with(result_mark))
        ended_before_ = true;
    // What the remote's threads print between two commands comes behind its prompt.
    if (line.size() > prompt.size() && line.starts_with(prompt) &&
        std::string_view("#!@~").find(line[prompt.size()]) != std::string_view::npos) {
        line.remove_prefix(prompt.size());
        at_prompt_ = !in_reply_;
    }
    if (line.starts_with(result_mark)) {
        if (take_result(line.substr(result_mark.size()))) {
            held_ = line;
            return reply_event::more;
        }
        result_ = remote_unknown{};
    } else if (line.starts_with(open_line)) {
        const std::string_view rest = line.substr(open_line.size());
        if (rest.starts_with(result_mark) && take_result(rest.substr(result_mark.size())))
            line = open_line;
    }
    return classify(line);
}

// A result line that was not the last one.
reply_event reply_reader::take_held() {
    const std::string line = std::move(held_);
    held_.clear();
    result_ = std::monostate{};
    after_result_ = false;
    return as_text(line);
}

// As much of a line that is too long to keep.
reply_event reply_reader::take_piece() {
    const std::string_view piece = std::string_view(buffer_).substr(taken_, reply_line_max);
    taken_ += piece.size();
    searched_ = 0;
    result_ = std::monostate{};
    after_result_ = false;
    const bool first = !in_pieces_;
    in_pieces_ = true;
    return first ? classify(piece) : as_text(piece);
}

reply_event reply_reader::next() {
    for (;;) {
        const std::string_view left = std::string_view(buffer_).substr(taken_);
        const std::size_t end = left.find('\n', searched_);
        const bool too_long = std::min(end, left.size()) > reply_line_max;
        if (!held_.empty() && (end != std::string_view::npos || too_long))
            return take_held();
        if (too_long)
            return take_piece();
        if (end == std::string_view::npos) {
            searched_ = left.size();
            buffer_.erase(0, taken_);
            taken_ = 0;
            const bool prompted = buffer_ == prompt || (at_prompt_ && buffer_.empty());
            if (in_pieces_ || !prompted)
                return reply_event::more;
            in_reply_ = false;
            return reply_event::prompt;
        }
        std::string_view line = left.substr(0, end);
        taken_ += end + 1;
        searched_ = 0;
        while (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (in_pieces_) {
            in_pieces_ = false;
            return as_text(line);
        }
        const reply_event event = take_line(line);
        if (event != reply_event::more)
            return event;
    }
}

} // namespace kestrel::links
