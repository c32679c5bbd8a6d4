// maths: writing an image result into a data module, made or found.
#pragma once

#include "modules/store/result_module.h"

#include <cstddef>

namespace kestrel {

enum class UMOutputType : int { none = 0, module = 1 };
enum class RWMode : int { write, read_then_write };

// Where the output keywords of a command say that its result goes.
struct umaths_destination {
    bool module = false;
    bool other = false; // a kind that is not provided
    const char *name = "";
    bool has_start_t = false;
    int start_x = 0, start_y = 0, start_t = 0;
};
// The keywords "module %s tessera %s carafe mem0 start-x %d start-y %d start-t %d" from bit `first` on.
umaths_destination umaths_destination_of(int quals, int first);

struct UMathsOutput {
    UMOutputType type = UMOutputType::none;
    int nx = 0, ny = 0, nt = 0;
    int start_x = 0, start_y = 0, start_t = 0;
    int full_x = 0, full_y = 0, full_t = 0;
    mod_element data_float = mod_element::u_int32;
    RWMode rw_mode = RWMode::write;
    result_module mod_head; // linked until the output stops
    module_view mod;
};

// Links or makes the destination of an nx x ny x nt result: 0, or -1 after a line.
int umaths_start_output(int cn, const umaths_destination &to, int nx, int ny, int nt, UMathsOutput &out,
                        RWMode rw_mode, mod_element data_float);

// Where result row `row` of plane `plane` goes, to be written at once; null after a line when it does not
// fit.
std::byte *umaths_get_output(int cn, int row, int plane, UMathsOutput &out);

// Unlinks the destination, and removes it when it is new and nothing was written. The destructor does so,
// too.
void umaths_stop_output(UMathsOutput &out);

} // namespace kestrel
