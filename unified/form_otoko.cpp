// OTOKO files are not provided: the form is there so that asking for one fails as it always did.
#include "unified/form.h"

#include <cstdio>

namespace kestrel {

namespace {

// The line numbers 45 and 55 are part of the messages; they name no line of this file.
void not_implemented(int line) {
    std::fprintf(stderr, "%s: Called function at line %d which is not yet implemented.\n", "unifotoko.c",
                 line);
}

class otoko_form final : public form_worker {
  public:
    int start(const _unif_format &, const unified_box &) override {
        not_implemented(45);
        return 0;
    }
    int write(const _unif_format &, const std::byte *, int, int, int) override {
        not_implemented(55);
        return -1;
    }
};

} // namespace

void otoko_setup_format(_unif_format &format) {
    format.type = form_type::otoko;
    format.needs_conversion = 1;
    format.data_type_required = el_float;
    format.swapping = swap_never;
    format.max_dimension = 3;
    format.worker = std::make_unique<otoko_form>();
}

} // namespace kestrel
