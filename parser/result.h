// parser: how a command's typed result is printed, logged and stored.
#pragma once

#include "parser/handler.h"
#include "parser/variables.h"

#include <cstdio>

namespace kestrel {

// `type` is the format's return type: 'd', 'g', 'f', 's', 'q', or 0 for none.
void result_print(int cn, char type, const pt_result &result, int radix);
void result_log(int cn, char type, const pt_result &result, int radix, std::FILE *log, std::FILE *vlog);
void result_store(char type, pt_result &result, Variable &out);

} // namespace kestrel
