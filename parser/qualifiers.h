// parser: a handler's keywords by their names. The compiler finds each in the row's own format:
//
//     constexpr pt_format smooth_format("%s %d wrapped fit %d to %s = %d");
//
//     int do_smooth(int quals, int cn, const char *name, int row) {
//         const pt_qualifiers<smooth_format> q(quals);
//         if (q.given("wrapped")) ...
//         const int fit = q.number("fit", -1);
//
//     ... pt_command<do_smooth>("smooth", smooth_format, "smooth a row", "name/row/...")
//
// A word that the format does not have, or has with a value of another type, does not compile, and a keyword
// put in between shifts none of the others. Values are those of the call under way: a handler takes what it
// needs before it runs another command line.
#pragma once

#include "parser/call.h"
#include "parser/format_words.h"

#include <cstddef>
#include <initializer_list>
#include <optional>

namespace kestrel {

// A row's argument format, as a constant that the row and its handler's view share.
struct pt_format {
    const char *text;

    consteval explicit pt_format(const char *format) : text(format) {
        if (format_reader(format).read().faulty)
            throw "the format breaks the grammar of parser/format_words.h";
    }
    constexpr operator const char *() const { return text; } // for the row
};

namespace qualifier_detail {

template <const pt_format &Format> inline constexpr format_parts parts = format_reader(Format.text).read();

// The index of a word of the format, given as its name. `Types` are the value types that fit; "" takes any.
template <const pt_format &Format, char... Types> struct word {
    int index = -1;

    consteval word(const char *name) {
        for (int i = 0; i < parts<Format>.nr_words; ++i) {
            const format_word &w = parts<Format>.words[static_cast<std::size_t>(i)];
            if (w.name == name && (sizeof...(Types) == 0 || ((w.type == Types) || ...)))
                index = i;
        }
        if (index < 0)
            throw "the format has no such keyword, or one whose value is of another type";
    }
};

} // namespace qualifier_detail

template <const pt_format &Format> class pt_qualifiers {
  public:
    // For lists of words:  static constexpr pt_qualifiers<f>::real_word limits[] = {"least", "most"};
    using any_word = qualifier_detail::word<Format>;
    using int_word = qualifier_detail::word<Format, 'd'>;
    using real_word = qualifier_detail::word<Format, 'g', 'f'>;
    using text_word = qualifier_detail::word<Format, 's'>;

    explicit pt_qualifiers(int quals) : mask_(static_cast<unsigned>(quals)) {}

    bool given(any_word word) const { return has(word.index); }
    bool none() const { return mask_ == 0; }

    // How many of these words are given, and the place in the list of the first that is, or -1.
    int count(std::initializer_list<any_word> words) const {
        int found = 0;
        for (const any_word &word : words)
            found += given(word);
        return found;
    }
    int which(std::initializer_list<any_word> words) const {
        int place = 0;
        for (const any_word &word : words) {
            if (given(word))
                return place;
            ++place;
        }
        return -1;
    }

    // A keyword and what it stands for, for tables of alternatives.
    template <class T> struct choice {
        any_word word;
        T means;
    };

    // What the first of the table's words that is given stands for; what the only one stands for, and nothing
    // when there are several.
    template <class T, std::size_t N> std::optional<T> first(const choice<T> (&table)[N]) const {
        for (const choice<T> &c : table) {
            if (given(c.word))
                return c.means;
        }
        return std::nullopt;
    }
    template <class T, std::size_t N> std::optional<T> only(const choice<T> (&table)[N]) const {
        std::optional<T> found;
        for (const choice<T> &c : table) {
            if (!given(c.word))
                continue;
            if (found)
                return std::nullopt;
            found = c.means;
        }
        return found;
    }

    // The word's value, or `otherwise` when it is not given.
    int number(int_word word, int otherwise = 0) const {
        return has(word.index) ? Qualifier[word.index].IntArg : otherwise;
    }
    double real(real_word word, double otherwise = 0.0) const {
        return has(word.index) ? Qualifier[word.index].DoubleArg : otherwise;
    }
    const char *text(text_word word, const char *otherwise = "") const {
        return has(word.index) ? Qualifier[word.index].StringArg : otherwise;
    }

    // The same where no other value stands for "not given".
    std::optional<int> number_if_given(int_word word) const {
        return has(word.index) ? std::optional(Qualifier[word.index].IntArg) : std::nullopt;
    }
    std::optional<double> real_if_given(real_word word) const {
        return has(word.index) ? std::optional(Qualifier[word.index].DoubleArg) : std::nullopt;
    }

  private:
    bool has(int index) const { return (mask_ >> index & 1) != 0; }

    unsigned mask_;
};

} // namespace kestrel
