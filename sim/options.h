// sim: options of a simulator, as a table; what the table does not have is left for the server. May use the standard
// library only.
#pragma once

#include <charconv>
#include <span>
#include <string_view>
#include <type_traits>

namespace kestrel {

struct sim_option {
    std::string_view word, value, help;  // -word=<value>
    bool (*take)(std::string_view text); // false: it cannot be understood
};

// The whole text as a number from low to high, 0x for hexadecimal.
template <class T> bool sim_number(std::string_view text, T low, T high, T &out) {
    T value{};
    const bool hex = text.starts_with("0x");
    const char *const first = text.data() + (hex ? 2 : 0), *const last = text.data() + text.size();
    std::from_chars_result got{};
    if constexpr (std::is_floating_point_v<T>)
        got = std::from_chars(first, last, value);
    else
        got = std::from_chars(first, last, value, hex ? 16 : 10);
    if (got.ec != std::errc() || got.ptr != last || !(value >= low && value <= high))
        return false;
    out = value;
    return true;
}

// Takes the options of the table out of argc and argv; one that cannot be understood ends the program.
void sim_take_options(int &argc, char **argv, std::span<const sim_option> options);

// Says what cannot be understood and what could be, and ends the program.
[[noreturn]] void sim_usage(const char *program, std::string_view wrong, std::span<const sim_option> options);

} // namespace kestrel
