// unified: the road of a read: source -> corrections -> conversion -> byte order -> form -> destination.
// Data that need no change go from the source's mapping straight to the destination; others are changed block
// by block in a buffer that stays in the processor's cache.
#pragma once

#include "unified/convert.h"
#include "unified/form.h"

namespace kestrel {

struct read_request {
    int handle = -1;
    unified_box box;
    scaling scale;
    bool dead_time = false;
    int swap_bytes = 0; // the order asked for is not this machine's
};

// What one piece may take in memory.
inline constexpr std::size_t read_piece_bytes = std::size_t{256} * 1024 * 1024;

// Reads the box of an open handle (checked by the caller), in this form, to this destination: 0 or -1 after
// messages to the session. `piece_bytes` limits a piece.
int run_read(int cn, const read_request &request, _unif_format &format, UnifOutput &output,
             std::size_t piece_bytes = read_piece_bytes);

} // namespace kestrel
