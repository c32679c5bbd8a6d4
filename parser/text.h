// parser: kinds of characters, and words compared without regard to case: of ASCII, whatever the locale. Uses
// nothing.
#pragma once

#include <cstddef>
#include <string_view>

namespace kestrel {

constexpr bool is_digit(char c) {
    return c >= '0' && c <= '9';
}
constexpr bool is_letter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

constexpr char lower_case(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr bool same_word(std::string_view a, std::string_view b) {
    if (a.size() != b.size())
        return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (lower_case(a[i]) != lower_case(b[i]))
            return false;
    }
    return true;
}

inline bool begins_with_word(std::string_view text, std::string_view start) {
    return text.size() >= start.size() && same_word(text.substr(0, start.size()), start);
}

} // namespace kestrel
