#include "parser/scanner.h"

#include "parser/variables.h"
#include "server/output.h"

#include <cctype>

namespace kestrel {

namespace {

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool is_word_char(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_';
}

} // namespace

// A bare name at the start of an item is a word (command or qualifier), unless "(" or "=" makes it a function
// call or an assignment.
bool scanned_line::take_word(item &next) {
    if (!is_name_start(text[at_]))
        return false;
    std::size_t name_end = at_;
    while (name_end < text.size() && is_name_char(text[name_end]))
        ++name_end;
    const char after = name_end < text.size() ? text[name_end] : '\0';
    const char second = name_end + 1 < text.size() ? text[name_end + 1] : '\0';
    if (after == '(' || (after == '=' && second != '='))
        return false;
    std::size_t end = at_;
    while (end < text.size() && is_word_char(text[end]))
        ++end;
    next.kind = item_kind::word;
    next.word = std::string_view(text).substr(at_, end - at_);
    at_ = end;
    return true;
}

void scanned_line::read_item() {
    while (at_ < text.size() && is_blank(text[at_]))
        ++at_;
    item next;
    next.position = at_;
    if (at_ == text.size()) {
        next.kind = item_kind::end;
    } else if (text[at_] == '?') {
        next.kind = item_kind::help;
        ++at_;
    } else if (!take_word(next)) {
        const bool good = expression_compile(text, at_, next.code, next.message);
        next.kind = good ? item_kind::expression : item_kind::bad;
    }
    // An item ends at a blank; help may follow at once.
    const bool ended = at_ == text.size() || is_blank(text[at_]) || text[at_] == '?';
    if (!ended && (next.kind == item_kind::word || next.kind == item_kind::expression)) {
        next.kind = item_kind::bad;
        next.message = "Syntax error";
    }
    items_.push_back(std::move(next));
}

void scanned_line::scan(int cn, std::size_t index, token &out) {
    while (items_.size() <= index)
        read_item();
    const item &next = items_[index];
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
        out.ScannedId = next.word;
        return;
    case item_kind::bad:
        if (!next.message.empty())
            sv_printf(cn, "! %s\n", next.message.c_str());
        out.kind = token_kind::unexpected;
        return;
    case item_kind::expression:
        break;
    }
    if (const std::string *constant = next.code.string_constant()) {
        out.kind = token_kind::string;
        out.ScannedString = *constant;
        return;
    }
    const std::string_view single = next.code.single_variable();
    if (!single.empty() && !get_variable(single)) {
        out.kind = token_kind::undefined_variable;
        out.ScannedString = single;
        return;
    }
    PE_Value value = expression_run(cn, next.code);
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

} // namespace kestrel
