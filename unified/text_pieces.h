// unified: a long text in numbered pieces, made on all processors and handed on in order. The threads that help live
// as long as the call and touch nothing but what makes a piece and its room.
#pragma once

#include <cstddef>

namespace kestrel {

// What makes piece number `piece` in its room, and returns its length; what takes each in turn, on the calling
// thread, and ends it all with a result that is not 0.
struct text_pieces {
    int count = 0;
    std::size_t room = 0; // bytes that any piece needs at most
    std::size_t (*make)(const void *user, int piece, char *room) = nullptr;
    int (*take)(const void *user, const char *text, std::size_t length) = nullptr;
    const void *user = nullptr;
};

// 0, or what `take` returned. std::bad_alloc when there is no room for a piece; without more threads the calling one
// makes all.
int unified_make_text(const text_pieces &pieces);

} // namespace kestrel
