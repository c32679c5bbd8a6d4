// parser: kinds of characters, and words compared without regard to case: of ASCII, whatever the locale. Uses
// nothing.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kestrel {

constexpr bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Kinds of characters, a bit each: of variable names, of their beginnings, of words.
enum character_kind : unsigned char { kind_name = 1, kind_name_start = 2, kind_word = 4 };

inline constexpr std::array<unsigned char, 256> character_kinds = [] {
    std::array<unsigned char, 256> kinds{};
    for (unsigned c = '0'; c <= '9'; ++c)
        kinds[c] = kind_name | kind_word;
    for (unsigned c = 'A'; c <= 'Z'; ++c)
        kinds[c] = kinds[c - 'A' + 'a'] = kind_name | kind_name_start | kind_word;
    kinds['_'] = kind_name | kind_name_start | kind_word;
    kinds['.'] = kind_name;
    kinds['-'] = kind_word;
    return kinds;
}();

constexpr bool is_kind(char c, character_kind kind) {
    return (character_kinds[static_cast<unsigned char>(c)] & kind) != 0;
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

// The first place from `at` on where two texts of one size differ; their size when there is none.
inline std::size_t next_difference(std::string_view a, std::string_view b, std::size_t at) {
    std::uint64_t eight = 0;
    const auto eight_of = [&](std::string_view text) {
        std::memcpy(&eight, text.data() + at, sizeof eight);
        return eight;
    };
    while (at + sizeof eight <= a.size() && eight_of(a) == eight_of(b))
        at += sizeof eight;
    while (at < a.size() && a[at] == b[at])
        ++at;
    return at;
}

// For short texts, which a call of the library's comparison costs more than their bytes.
inline bool is_same_text(std::string_view a, std::string_view b) {
    return a.size() == b.size() && next_difference(a, b, 0) == a.size();
}

inline bool begins_with_word(std::string_view text, std::string_view start) {
    return text.size() >= start.size() && same_word(text.substr(0, start.size()), start);
}

} // namespace kestrel
