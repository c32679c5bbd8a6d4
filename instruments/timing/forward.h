// instruments/timing: from a command typed here to the text that the remote server is sent: its words, its numbers, and
// the keywords that were given, in the order of the format, each with its value.
#pragma once

#include "instruments/timing/kairo.h"
#include "parser/qualifiers.h"

#include <initializer_list>
#include <optional>
#include <string>

namespace kestrel {

// " 'text'"; nothing, after a line, for a text that no quotes can hold.
std::optional<std::string> kairo_quoted(int cn, std::string_view text);

// " 12" and " 0.25"; reals as %g.
std::string kairo_number(int value);
std::string kairo_number(double value);

// The text with the given keywords behind it, but for those of `left_out`, a bit each; nothing after a line.
std::optional<std::string> kairo_add_words(int cn, std::string text, const format_parts &format, int quals,
                                           unsigned left_out = 0);

template <const pt_format &Format>
std::optional<std::string> kairo_text(int cn, int quals, std::string text,
                                      std::initializer_list<qualifier_detail::word<Format>> left_out = {}) {
    unsigned mask = 0;
    for (const auto &word : left_out)
        mask |= 1u << word.index;
    return kairo_add_words(cn, std::move(text), qualifier_detail::parts<Format>, quals, mask);
}

// The whole of most commands: sends it if the unit is configured; the remote's result, or -1.
template <const pt_format &Format>
int kairo_forward(int quals, int cn, std::string text,
                  std::initializer_list<qualifier_detail::word<Format>> left_out = {}) {
    if (!kairo_ready(cn))
        return -1;
    const std::optional<std::string> line = kairo_text<Format>(cn, quals, std::move(text), left_out);
    return line ? kairo_send(cn, *line) : -1;
}

} // namespace kestrel
