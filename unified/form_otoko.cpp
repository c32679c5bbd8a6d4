// OTOKO files are not provided: the form is there so that asking for one fails as it always did.
#include "unified/form.h"

#include <cstdio>

namespace kestrel {

namespace {

void not_implemented(int line) {
    std::fprintf(stderr, "%s: Called function at line %d which is not yet implemented.\n", "unifotoko.c",
                 line);
}

int otoko_start(_unif_format &format, const unified_box &box, int data_type, UnifOutput &output) {
    form_start(format, box, data_type, output);
    not_implemented(45);
    return 0;
}

int otoko_write(_unif_format &, const void *, int, int, int) {
    not_implemented(55);
    return -1;
}

} // namespace

void otoko_setup_format(_unif_format &format) {
    format.type = form_type::otoko;
    format.startfn = otoko_start;
    format.stopfn = form_stop_nothing;
    format.writefn = otoko_write;
    format.needs_conversion = 1;
    format.data_type_required = el_float;
    format.swapping = swap_never;
    format.max_dimension = 3;
}

} // namespace kestrel
