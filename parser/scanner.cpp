#include "parser/scanner.h"

#include "parser/variables.h"
#include "server/output.h"

namespace kestrel {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool is_word_char(char c) {
    return is_kind(c, kind_word);
}

} // namespace

// A bare name at the start of an item is a word (command or qualifier), unless "(" or "=" makes it a function
// call or an assignment.
bool scanned_line::take_word(item &next) {
    if (!is_name_start(text_[at_]))
        return false;
    std::size_t name_end = at_;
    while (name_end < text_.size() && is_name_char(text_[name_end]))
        ++name_end;
    const char after = name_end < text_.size() ? text_[name_end] : '\0';
    const char second = name_end + 1 < text_.size() ? text_[name_end + 1] : '\0';
    if (after == '(' || (after == '=' && second != '='))
        return false;
    std::size_t end = at_;
    while (end < text_.size() && is_word_char(text_[end]))
        ++end;
    next.kind = item_kind::word;
    next.text = std::string_view(text_).substr(at_, end - at_);
    at_ = end;
    return true;
}

// A single instruction, as most are, becomes an item that needs no program.
void scanned_line::take_expression(item &next) {
    next.code = code_.size();
    const bool good = expression_compile(text_, at_, code_, message_);
    next.code_end = code_.size();
    next.kind = good ? item_kind::expression : item_kind::bad;
    if (!good || next.code_end - next.code != 1)
        return;
    const instruction &only = code_.back();
    switch (only.code) {
    case op::push_int:
        next.kind = item_kind::integer;
        next.value = only.a;
        return;
    case op::push_string:
    case op::load:
        next.kind = only.code == op::load ? item_kind::variable : item_kind::string;
        next.text = program_of(next).text(only);
        return;
    default:
        return;
    }
}

void scanned_line::read_item() {
    while (at_ < text_.size() && is_blank(text_[at_]))
        ++at_;
    if (items_.size() == items_.capacity())
        items_.reserve(2 * items_.size() + 4); // now: without memory nothing of the line is lost
    item next;
    next.position = at_;
    if (at_ == text_.size()) {
        next.kind = item_kind::end;
    } else if (text_[at_] == '?') {
        next.kind = item_kind::help;
        ++at_;
    } else if (!take_word(next)) {
        take_expression(next);
    }
    // An item ends at a blank; help may follow at once.
    const bool ended = at_ == text_.size() || is_blank(text_[at_]) || text_[at_] == '?';
    if (!ended && next.kind != item_kind::help && next.kind != item_kind::bad) {
        next.kind = item_kind::bad;
        message_ = "Syntax error";
    }
    items_.push_back(next);
}

program scanned_line::program_of(const item &i) const {
    return {text_, std::span(code_).subspan(i.code, i.code_end - i.code)};
}

// Whether all that differs, from `at` on, are digits of short integers and characters of strings: with digits in the place
// of digits, and no quote that ends a string, the line is read in the same way.
bool scanned_line::differs_in_constants(std::string_view line, std::size_t at) const {
    auto constant =
        code_.begin(); // in the order of the text, but for names, which stand before what they are of
    for (; at < line.size(); at = next_difference(line, text_, at + 1)) {
        while (constant != code_.end() && static_cast<std::size_t>(constant->at + constant->length) <= at)
            ++constant;
        if (constant == code_.end() || at < static_cast<std::size_t>(constant->at))
            return false;
        const char c = line[at];
        const bool is_string = constant->code == op::push_string;
        if (is_string ? c == line[static_cast<std::size_t>(constant->at) - 1]
                      : constant->code != op::push_int || !is_digit(c))
            return false;
    }
    return true;
}

void scanned_line::take_constants(std::string_view line) {
    line.copy(text_.data(), line.size());
    for (instruction &i : code_) {
        if (i.code != op::push_int || i.length == 0)
            continue;
        i.a = 0;
        for (const char digit :
             line.substr(static_cast<std::size_t>(i.at), static_cast<std::size_t>(i.length)))
            i.a = i.a * 10 + (digit - '0');
    }
    for (item &i : items_) {
        if (i.kind != item_kind::integer)
            continue;
        if (i.code_end - i.code == 1)
            i.value = code_[i.code].a;
        else
            i.kind = item_kind::expression;
    }
}

bool scanned_line::becomes(std::string_view line) {
    if (line.size() != text_.size())
        return false;
    const std::size_t at = next_difference(line, text_, 0);
    if (at == line.size())
        return true;
    if (!differs_in_constants(line, at))
        return false;
    take_constants(line);
    return true;
}

void scanned_line::assign(std::string_view line) {
    constexpr std::size_t kept_text = 1024, kept_items = 16, kept_code = 128;
    if (becomes(line))
        return;
    if (text_.capacity() > kept_text || items_.size() > kept_items || code_.capacity() > kept_code) {
        text_ = {};
        items_ = {};
        code_ = {};
    }
    command = nullptr;
    items_.clear();
    code_.clear();
    at_ = 0;
    text_ = line;
}

void scanned_line::evaluate(int cn, item &i, token &out) {
    const program code = program_of(i);
    if (const std::optional<int> value = expression_run_integers(code)) {
        out.kind = token_kind::integer;
        out.ScannedInt = *value;
        if (code.is_constant()) {
            i.kind = item_kind::integer;
            i.value = *value;
        }
        return;
    }
    PE_Value value = expression_run(cn, code);
    switch (value.type) {
    case pe_int:
        out.kind = token_kind::integer;
        out.ScannedInt = value.IntValue;
        return;
    case pe_double:
        out.kind = token_kind::real;
        out.ScannedDouble = value.DoubleValue;
        return;
    case pe_string:
        out.kind = token_kind::string;
        out.ScannedString = std::move(value.StringValue);
        return;
    case pe_qualifier:
        out.kind = token_kind::identifier;
        out.ScannedString = std::move(value.StringValue);
        out.ScannedId = out.ScannedString;
        out.qualifier_value = true;
        return;
    case pe_error:
        out.kind = token_kind::unexpected;
    }
}

void scanned_line::scan(int cn, std::size_t index, token &out) {
    while (items_.size() <= index)
        read_item();
    item &next = items_[index];
    out.ScannerInputPosn = next.position;
    out.qualifier_value = false;
    switch (next.kind) {
    case item_kind::end:
        out.kind = token_kind::end_of_line;
        return;
    case item_kind::help:
        out.kind = token_kind::help;
        return;
    case item_kind::word:
        out.kind = token_kind::identifier;
        out.ScannedId = next.text;
        return;
    case item_kind::string:
        out.kind = token_kind::string;
        out.ScannedString = next.text;
        return;
    case item_kind::integer:
        out.kind = token_kind::integer;
        out.ScannedInt = next.value;
        return;
    case item_kind::bad:
        if (!message_.empty())
            sv_printf(cn, "! %s\n", message_.c_str());
        out.kind = token_kind::unexpected;
        return;
    case item_kind::variable:
        if (get_variable(next.text))
            return evaluate(cn, next, out);
        out.kind = token_kind::undefined_variable;
        out.ScannedString = next.text;
        return;
    case item_kind::expression:
        return evaluate(cn, next, out);
    }
}

} // namespace kestrel
