// parser: the short forms at the beginning of a line: "@macro rest" and "~script arguments".
#pragma once

#include <string>
#include <string_view>

namespace kestrel {

inline constexpr int macro_expansions_max = 100; // macros whose texts begin with macros
inline constexpr std::size_t expanded_line_max = std::size_t{1} << 20;

bool has_short_form(std::string_view line);

// The line as it is to be scanned. False, after a line to the session, when macros expand without end.
bool preprocess(int cn, std::string_view line, std::string &out);

} // namespace kestrel
