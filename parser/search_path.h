// parser: where include files are looked for.
#pragma once

#include "support/fd.h"

namespace kestrel {

// Opens the file as named, else in each directory of KESTRELPATH in order (the list is taken at the first call). An empty
// guard when it is nowhere.
unique_fd search_path_open(int cn, const char *name);

} // namespace kestrel
