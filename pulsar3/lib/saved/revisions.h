// pulsar3/lib/saved: the revision of each card, which says whose settings a directory holds.
#pragma once

#include <string>

namespace kestrel {

int plr3_save_revisions(int path, const std::string &directory);
// A card with another major revision than its file has is refused, unless forced; without a file it is not. A file that
// cannot be read, or is none, is refused anyhow.
int plr3_compare_revisions(int path, const std::string &directory, bool force);

} // namespace kestrel
