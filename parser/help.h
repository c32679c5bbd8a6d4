// parser: what "?" and lookup errors print, and the machine-readable dump of the tree.
#pragma once

#include "parser/tree.h"

namespace kestrel {

// The caret line: stands under the place in the line when the client echoed it behind the prompt "> ".
void locate(int cn, std::size_t position);

void list_names(int cn, const PARSE_TREE *table);   // after a word that names nothing
void list_choices(int cn, const PARSE_TREE *table); // for "?" in place of a word
void help(int cn, const PARSE_TREE &entry);         // for "?" in place of an argument

// The dump of one table and, recursively, its sub-tables.
void stuff(int cn, const PARSE_TREE *table);

// Completion: whole lines made of what is typed and each name that may follow, in table order.
std::vector<std::string> user_sv_ln_completion(std::string_view line);

} // namespace kestrel
