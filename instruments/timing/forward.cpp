#include "instruments/timing/forward.h"

#include "parser/call.h"
#include "server/output.h"

#include <cstdio>

namespace kestrel {

std::optional<std::string> kairo_quoted(int cn, std::string_view text) {
    if (text.find_first_of("'\r\n") == std::string_view::npos)
        return " '" + std::string(text) + "'";
    sv_printf(cn, "! ERROR: a text with a quote or a line end cannot be sent to the KAIRO server\n");
    return std::nullopt;
}

std::string kairo_number(int value) {
    return " " + std::to_string(value);
}

std::string kairo_number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, " %g", value);
    return text;
}

namespace {

// A keyword that takes a real does not take an integer: a whole number needs its point.
std::string keyword_real(double value) {
    const std::string text = kairo_number(value);
    return text.find_first_of(".en") == std::string::npos ? text + ".0" : text;
}

} // namespace

std::optional<std::string> kairo_add_words(int cn, std::string text, const format_parts &format, int quals,
                                           unsigned left_out) {
    const unsigned given = static_cast<unsigned>(quals) & ~left_out;
    for (int i = 0; i < format.nr_words; ++i) {
        if ((given >> i & 1) == 0)
            continue;
        const format_word &word = format.words[static_cast<std::size_t>(i)];
        text += " " + std::string(word.name);
        if (word.type == 'd')
            text += kairo_number(Qualifier[i].IntArg);
        else if (word.type == 'g')
            text += keyword_real(Qualifier[i].DoubleArg);
        else if (word.type == 's') {
            const auto quoted = kairo_quoted(cn, Qualifier[i].StringArg);
            if (!quoted)
                return std::nullopt;
            text += *quoted;
        }
    }
    return text;
}

} // namespace kestrel
