// support: the parts that files of the HDF5 library are written with: owned identifiers, texts, NeXus groups. For the
// code that calls the library itself; others include tessera.h.
#pragma once

#include "support/tessera.h"

#include <hdf5.h>
#include <string>

namespace kestrel {

static_assert(sizeof(long) >= sizeof(hid_t));

template <herr_t (*Close)(hid_t)> int hdf5_close_with(long id) {
    return Close(static_cast<hid_t>(id));
}

template <herr_t (*Close)(hid_t)> tessera_id hdf5_own(hid_t id) {
    return {static_cast<long>(id), hdf5_close_with<Close>};
}

// The library prints its error stack unless told not to; our callers print their own line.
// Nor may it tidy up when the process ends: all our files are closed then, and after a file that could not be
// closed (full disk) it would crash. Called before anything else of the library.
void hdf5_quiet();

// Of variable length in UTF-8, as NeXus tools write their texts.
tessera_id hdf5_text_type();

// A text as an attribute of `place`, or as a dataset in it.
bool hdf5_text(hid_t place, const char *name, const std::string &text, bool attribute);

// A group with its NX_class; not ok() when it cannot be made.
tessera_id hdf5_group(hid_t place, const char *name, const char *nx_class);

} // namespace kestrel
