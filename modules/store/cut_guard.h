// modules/store: what happens when another process cuts a module short while its elements are being looked
// at. The access would be a fatal signal. Instead the rest of the mapping becomes zeros, and the command that
// was looking ends with an error. Any other SIGBUS keeps its default action.
#pragma once

#include <cstddef>

namespace kestrel {

// Watches a mapping from now on: its number, or -1 when too many are watched.
// The caller holds img_mod_mutex, here and at the end.
int cut_guard_add(void *address, std::size_t size);
void cut_guard_remove(int number);

// True once zeros stand in for a part of the watched mapping, whatever the object's size is now.
bool cut_guard_was_cut(int number);

// How many accesses have met a module's new end so far, of all mappings. Any thread.
int cut_guard_count();

} // namespace kestrel
