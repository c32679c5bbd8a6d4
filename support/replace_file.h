// support: files that are never half there.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

namespace kestrel {

// The step that failed, with errno.
enum class replace_step { none, open, write, close };

// Writes the bytes beside the file and puts them in its place: a crash leaves the old contents or the new ones, a failure
// the old ones. A pipe or a device is not replaced.
replace_step replace_file(const std::string &path, std::string_view bytes, mode_t mode);

} // namespace kestrel
