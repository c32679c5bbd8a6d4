// parser: argument formats, compiled once a command.
#pragma once

#include "parser/tree.h"

#include <memory>
#include <string>

namespace kestrel {

// Where and why a format breaks the grammar.
struct format_error {
    std::size_t position = 0;
};

// Compiles a format; null with `error` filled when it breaks the grammar.
std::unique_ptr<_pt_args> format_compile(std::string_view format, format_error &error);

// True when the handler's derived signature takes exactly what the compiled format gives.
bool format_fits(const _pt_args &args, const pt_handler &handler);

// The row's compiled format, compiled now if this is the command's first use. A bad row ends the process: it
// is a fault of the program, and must not run.
const _pt_args &_xx_parse_args(const PARSE_TREE &entry);

} // namespace kestrel
