// files: the index and the log that number the data files of a folder.
//
//   kestrel.index       the number last given, as text; replaced whole (written aside, then renamed)
//   kestrel.index.lock  locked while a number is drawn, so that servers in one folder draw different ones
//   kestrel.log         what was drawn, one entry a file
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrel {

inline constexpr const char *index_file = "kestrel.index";
inline constexpr const char *index_lock = "kestrel.index.lock";
inline constexpr const char *index_log = "kestrel.log";

// The number in an index file's text: decimal digits and at most one line end; nothing for anything else and
// for numbers above INT_MAX.
std::optional<int> parse_index(std::string_view text);

} // namespace kestrel
