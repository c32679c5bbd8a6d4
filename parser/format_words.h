// parser: the grammar of an argument format, read by the compiler as well as at run time.
//
//   format      = { "%" type | "+" } { word [ "%" type ] } [ "=" "%" type ]
//   positional  : d g f s v; what follows the one "+" may be missing
//   keywords    : d g f s, or none; at most 32, since a call's mask has a bit for each
//   result      : d g f s q
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace kestrel {

inline constexpr int pt_max_qualifiers = 32;

struct format_word {
    std::string_view name;
    char type = 0; // 0: a keyword alone
};

// What a format says. The views point into its text.
struct format_parts {
    std::string_view arguments; // from the first positional argument to the last
    std::array<format_word, pt_max_qualifiers> words{};
    int nr_words = 0;
    char return_type = 0;
    bool faulty = false;
    std::size_t fault = 0; // where a faulty one breaks the grammar
};

class format_reader {
  public:
    constexpr explicit format_reader(std::string_view format) : format_(format) {}

    constexpr format_parts read() {
        format_parts parts;
        parts.faulty = !read_arguments(parts) || !read_words(parts) || !read_return(parts);
        parts.fault = at_;
        return parts;
    }

  private:
    static constexpr bool is_word_start(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
    static constexpr bool is_word_char(char c) {
        return is_word_start(c) || (c >= '0' && c <= '9') || c == '-' || c == '_';
    }

    constexpr bool ended() const { return at_ == format_.size(); }
    constexpr char peek() const { return ended() ? '\0' : format_[at_]; }
    constexpr void skip_blanks() {
        while (peek() == ' ')
            ++at_;
    }

    // "%x" with x one of the letters; 0 when something else stands here.
    constexpr char take_type(std::string_view letters) {
        if (peek() != '%' || at_ + 1 >= format_.size())
            return 0;
        ++at_;
        const char letter = peek();
        if (letters.find(letter) == std::string_view::npos)
            return 0;
        ++at_;
        return letter;
    }

    constexpr bool read_arguments(format_parts &parts) {
        bool optional = false;
        const std::size_t start = at_;
        for (skip_blanks(); peek() == '%' || peek() == '+'; skip_blanks()) {
            if (peek() == '%') {
                if (!take_type("dgfsv"))
                    return false;
                continue;
            }
            if (optional)
                return false;
            optional = true;
            ++at_;
        }
        parts.arguments = format_.substr(start, at_ - start);
        return true;
    }

    constexpr bool read_words(format_parts &parts) {
        for (skip_blanks(); is_word_start(peek()); skip_blanks()) {
            const std::size_t start = at_;
            while (is_word_char(peek()))
                ++at_;
            if (parts.nr_words == pt_max_qualifiers)
                return false;
            format_word &word = parts.words[static_cast<std::size_t>(parts.nr_words++)];
            word.name = format_.substr(start, at_ - start);
            skip_blanks();
            if (peek() == '%' && !(word.type = take_type("dgfs")))
                return false;
        }
        return true;
    }

    constexpr bool read_return(format_parts &parts) {
        if (ended())
            return true;
        if (peek() != '=')
            return false;
        ++at_;
        skip_blanks();
        parts.return_type = take_type("dgfsq");
        skip_blanks();
        return parts.return_type && ended();
    }

    std::string_view format_;
    std::size_t at_ = 0;
};

} // namespace kestrel
