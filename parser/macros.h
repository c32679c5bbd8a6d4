// parser: macros, short names for command texts. One list for the whole server. The rows of `macro` and
// `macro-list` are in parser/builtins.h.
#pragma once

#include <string>
#include <string_view>

namespace kestrel {

// The macro's text; null when there is none of that name.
const std::string *macro_text(std::string_view name);

} // namespace kestrel
