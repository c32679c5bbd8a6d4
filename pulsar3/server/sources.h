// pulsar3/server: which unified handles are open over which paths. A source's own path, which its callbacks get, is its
// number in a table here; a path of cards is not closed while a handle reads from it.
#pragma once

#include "unified/handles/handles.h"

namespace kestrel {

// What a handle stands for.
struct pulsar3_source {
    int path = -1;         // of the cards
    unsigned options = 0;  // the kind's own
    const char *kind = ""; // in its description, as in "scalers"
};

// Opens a handle of this size: its number, or -1 after a line. `callbacks` may leave out destroy.
int pulsar3_open_source(int cn, const pulsar3_source &source, int nx, int ny, int nt, int data_type,
                        unified_source callbacks);

// What a callback's path stands for; null, with the reason told, when that is closed.
const pulsar3_source *pulsar3_source_of(int number);

// The library's status as a callback's result; a failure is explained with the library's text.
int pulsar3_source_status(int status);

// What the handle's data come from, for whoever writes a run down: of histograms, of scalers.
struct run_source;
extern const run_source pulsar3_histogram_run, pulsar3_scaler_run;

// Whether a handle over this path, or over a card of it, is open.
bool plr3_path_has_handles(int path);

} // namespace kestrel
