// pulsar3/lib/saved: the revision of each card, which says whose settings a directory holds.
#pragma once

#include <string>

namespace kestrel {

int plr3_save_revisions(int path, const std::string &directory);
// A card with another major revision than its file has is refused; without a file it is not.
int plr3_compare_revisions(int path, const std::string &directory);

} // namespace kestrel
