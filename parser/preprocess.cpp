#include "parser/preprocess.h"

#include "parser/macros.h"
#include "server/output.h"

namespace kestrel {

namespace {

constexpr std::string_view blanks = " \t";

std::string_view skip_blanks(std::string_view text) {
    const std::size_t start = text.find_first_not_of(blanks);
    return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

std::string_view take_word(std::string_view &text) {
    const std::string_view word = text.substr(0, text.find_first_of(blanks));
    text.remove_prefix(word.size());
    return word;
}

std::string expand_macro(std::string_view rest) {
    const std::string_view name = take_word(rest);
    if (const std::string *text = macro_text(name))
        return *text + std::string(rest);
    return "echo '! macro " + std::string(name) + " not found'";
}

// ".cmd" is added unless a "." is found: in the part of the name after its last "/", or, when it has no "/",
// in the whole line, so that a dot in an argument also keeps it off.
std::string expand_include(std::string_view rest) {
    rest = skip_blanks(rest);
    const std::string_view whole = rest;
    const std::string_view name = take_word(rest);
    const std::size_t slash = name.rfind('/');
    const std::string_view searched = slash == std::string_view::npos ? whole : name.substr(slash + 1);
    const char *suffix = searched.find('.') == std::string_view::npos ? ".cmd" : "";
    return "include '" + std::string(name) + suffix + "' " + std::string(skip_blanks(rest));
}

} // namespace

bool has_short_form(std::string_view line) {
    std::size_t at = 0;
    while (at < line.size() && (line[at] == ' ' || line[at] == '\t'))
        ++at;
    return at < line.size() && (line[at] == '@' || line[at] == '~');
}

bool preprocess(int cn, std::string_view line, std::string &out) {
    out = line;
    for (int expansions = 0;; ++expansions) {
        const std::string_view text = skip_blanks(out);
        if (text.starts_with('~')) {
            out = expand_include(text.substr(1));
            return true;
        }
        if (!text.starts_with('@'))
            return true;
        if (expansions == macro_expansions_max)
            break;
        out = expand_macro(text.substr(1));
        if (out.size() > expanded_line_max)
            break;
    }
    sv_printf(cn, "! Macro expands without end\n");
    return false;
}

} // namespace kestrel
