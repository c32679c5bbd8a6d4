// parser: the functions that expressions may call, as a table.
#pragma once

#include "parser/value.h"

#include <string_view>

namespace kestrel {

// Calls name(argument). An unknown name or an illegal argument prints its "!" line and gives an error value.
PE_Value function_call(int cn, std::string_view name, const PE_Value &argument);

} // namespace kestrel
