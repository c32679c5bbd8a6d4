// pulsar3/lib/saved: the files of a directory of settings.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

namespace kestrel {

using saved_bytes = std::vector<std::byte>;

std::string plr3_saved_name(const std::string &directory, const std::string &file);

// Writes a file aside and puts it in its place: 0, or plr3_failed with a text.
int plr3_put_saved(const std::string &name, std::span<const std::byte> bytes);

enum class file_found { yes, missing, unreadable };
// All of a regular file, up to one byte more than `most`; `found` says why there is nothing.
saved_bytes plr3_get_saved(const std::string &name, std::size_t most, file_found &found);

} // namespace kestrel
