// parser: from a line's converted arguments to an ordinary handler function and back to its result.
//
// A handler is  R f(int quals, int cn, A... args)  with
//   A: int (%d), double (%g, %f), const char * (%s), const pt_value & (%v), or as the last one
//      std::span<const pt_value>, which takes all the rest of the format's arguments, given or not;
//   R: int (= %d, or no result), double (= %g), pt_string (= %s, = %q).
// pt_bind<f>() makes the table's entry from f itself and derives its signature as letters, so that a row
// whose format does not fit its handler is found when the format is compiled.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace kestrel {

// One positional argument as the line gave it. `type` is 'd', 'f', 's', or 0 when it was not given, and then
// the values are zero and null. The string belongs to the interpreter and lives during the call.
struct pt_value {
    char type = 0;
    int i = 0;
    double d = 0.0;
    const char *s = nullptr;
};

// A string result; nothing is the null result, which tells the user of a failure.
using pt_string = std::optional<std::string>;

struct pt_result {
    int i = 0;
    double d = 0.0;
    pt_string s;
};

struct pt_handler {
    void (*call)(int quals, int cn, std::span<const pt_value> args, pt_result &result) = nullptr;
    const char *letters = ""; // 'd', 'g', 's', 'v' an argument, '*' for the rest
    char returns = 0;         // 'd', 'g' or 's'
};

namespace handler_detail {

using rest = std::span<const pt_value>;

template <class T> constexpr char letter() {
    if constexpr (std::is_same_v<T, int>)
        return 'd';
    else if constexpr (std::is_same_v<T, double>)
        return 'g';
    else if constexpr (std::is_same_v<T, const char *>)
        return 's';
    else if constexpr (std::is_same_v<T, const pt_value &>)
        return 'v';
    else if constexpr (std::is_same_v<T, rest>)
        return '*';
    else
        static_assert(!sizeof(T *), "a handler takes int, double, const char *, const pt_value & or a span");
}

template <class T> T take(rest args, std::size_t index) {
    if constexpr (std::is_same_v<T, int>)
        return args[index].i;
    else if constexpr (std::is_same_v<T, double>)
        return args[index].d;
    else if constexpr (std::is_same_v<T, const char *>)
        return args[index].s;
    else if constexpr (std::is_same_v<T, rest>)
        return args.subspan(index);
    else
        return args[index];
}

template <auto Handler, class R, class... A> struct binding {
    static constexpr std::array<char, sizeof...(A) + 1> letters = {letter<A>()..., '\0'};

    static constexpr char returns() {
        if constexpr (std::is_same_v<R, int>)
            return 'd';
        else if constexpr (std::is_same_v<R, double>)
            return 'g';
        else if constexpr (std::is_same_v<R, pt_string>)
            return 's';
        else
            static_assert(!sizeof(R *), "a handler returns int, double or pt_string");
    }

    template <std::size_t... I>
    static R invoke(int quals, int cn, [[maybe_unused]] rest args, std::index_sequence<I...>) {
        return Handler(quals, cn, take<A>(args, I)...);
    }

    static void call(int quals, int cn, rest args, pt_result &result) {
        R value = invoke(quals, cn, args, std::index_sequence_for<A...>{});
        if constexpr (std::is_same_v<R, int>)
            result.i = value;
        else if constexpr (std::is_same_v<R, double>)
            result.d = value;
        else
            result.s = std::move(value);
    }
};

template <auto Handler, class R, class... A> constexpr pt_handler bind(R (*)(int, int, A...)) {
    using b = binding<Handler, R, A...>;
    return {b::call, b::letters.data(), b::returns()};
}

} // namespace handler_detail

template <auto Handler> constexpr pt_handler pt_bind() {
    return handler_detail::bind<Handler>(Handler);
}

} // namespace kestrel
