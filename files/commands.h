// files: `file` commands. Data files as unified handles, and the index that numbers the files of a folder.
#pragma once

#include "parser/tree.h"

namespace kestrel {

extern const PARSE_TREE row_file;

int file_open(int quals, int cn, const char *name);
int file_close(int quals, int cn, int handle);
int file_get_next_index(int quals, int cn, const char *folder, const char *comment1, const char *comment2);

} // namespace kestrel
