// parser: macros, short names for command texts. One list for the whole server.
#pragma once

#include <string>
#include <string_view>

namespace kestrel {

// The macro's text; null when there is none of that name.
const std::string *macro_text(std::string_view name);

int simple_macro_command(int quals, int cn, const char *name, const char *text);
int simple_macro_list(int quals, int cn);

} // namespace kestrel
