// parser: printf formats that users type, checked against the values that they will print. Knows no session.
#pragma once

#include "parser/value.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kestrel {

// Formats the values as printf would. Integers and doubles convert to each other as a conversion asks; a
// string meets "%s" only. Nothing, with `error` saying why (without "! " and line end), when a conversion is
// unknown, is "%n", takes its width from "*", has no value left, or meets the wrong kind of value. The text
// is cut at `max` characters.
std::optional<std::string> format_text(std::string_view format, std::span<const PE_Value> values,
                                       std::size_t max, std::string &error);

} // namespace kestrel
