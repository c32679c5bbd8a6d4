// maths: writing an image result into a data module, made or found.
#pragma once

#include "modules/store/result_module.h"
#include "parser/qualifiers.h"
#include "support/text_join.h"

#include <atomic>
#include <cstddef>
#include <optional>

namespace kestrel {

enum class UMOutputType : int { none = 0, module = 1 };
enum class RWMode : int { write, read_then_write };

// How the formats and the help of commands that write an image end.
inline constexpr fixed_text
    umaths_output_words("module %s tessera %s carafe mem0 start-x %d start-y %d start-t %d  = %d");
inline constexpr fixed_text umaths_output_help("To Module <name>/To Tessera <name>/To carafe/To mem0/"
                                               "start point for x/start point for y/start point for t");

// Where these keywords say that the result goes.
struct umaths_destination {
    bool module = false;
    bool other = false; // a kind that is not provided
    const char *name = "";
    bool has_start_t = false;
    int start_x = 0, start_y = 0, start_t = 0;
};
template <const pt_format &Format> umaths_destination umaths_destination_of(const pt_qualifiers<Format> &q) {
    return {q.given("module"),   q.count({"tessera", "carafe", "mem0"}) > 0,
            q.text("module"),    q.given("start-t"),
            q.number("start-x"), q.number("start-y"),
            q.number("start-t")};
}

struct UMathsOutput {
    UMOutputType type = UMOutputType::none;
    int nx = 0, ny = 0, nt = 0;
    int start_x = 0, start_y = 0, start_t = 0;
    int full_x = 0, full_y = 0, full_t = 0;
    mod_element data_float = mod_element::u_int32;
    RWMode rw_mode = RWMode::write;
    result_module mod_head;            // linked until the output stops
    std::atomic<bool> written = false; // what is new stays
    UMathsOutput() = default;
    ~UMathsOutput();
};

// Links or makes the destination of an nx x ny x nt result: 0, or -1 after a line.
int umaths_start_output(int cn, const umaths_destination &to, int nx, int ny, int nt, UMathsOutput &out,
                        RWMode rw_mode, mod_element data_float);

// Where result row `row` of plane `plane` goes, to be written at once; null after a line when it does not
// fit.
std::byte *umaths_get_output(int cn, int row, int plane, UMathsOutput &out);

// Where all result rows go, to be written at once, by several threads where each writes rows of its own.
struct umaths_result_rows {
    std::byte *first = nullptr;
    std::size_t row_apart = 0, plane_apart = 0; // bytes
    bool past_cache = false;                    // too large to stay in the cache
    bool untouched = false;                     // large, and its pages may not be mapped yet
    template <class T> T *row(int row, int plane) const {
        return reinterpret_cast<T *>(first + static_cast<std::size_t>(row) * row_apart +
                                     static_cast<std::size_t>(plane) * plane_apart);
    }
    std::atomic<bool> *written = nullptr;
    // To be called before so many rows are written. Where it pays it maps their pages at once, and not one by one
    // as they are written.
    void begin(int row, int plane, int rows) const;
};
// Nothing, after a line, when they do not fit.
std::optional<umaths_result_rows> umaths_all_output(int cn, UMathsOutput &out);

// Unlinks the destination, and removes it when it is new and nothing was written. The destructor does so,
// too.
void umaths_stop_output(UMathsOutput &out);

} // namespace kestrel
