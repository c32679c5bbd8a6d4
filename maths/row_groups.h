// maths: taking the rows of a region by fours, where they can be held together.
#pragma once

#include "maths/kernels.h"
#include "maths/reader.h"

#include <algorithm>
#include <vector>

namespace kestrel {

// Four rows of a plane (`apart` rows from each other), or of four planes. False when a read failed.
template <class T>
bool umaths_four_rows(int cn, int row, int apart, int plane, int planes_apart, UMaths &r,
                      four_rows<T> &rows) {
    for (int k = 0; k < 4; ++k) {
        const std::span<const T> line = umaths_row<T>(cn, row + k * apart, plane + k * planes_apart, r);
        if (line.empty())
            return false;
        rows[static_cast<std::size_t>(k)] = line.data();
    }
    return true;
}

// Goes through rows top to top + rows - 1 of all frames, frames in order, when they can all be held together:
// four(lines, row, frame) gets a row of four frames from `frame` on, one(line, row, frame) the row of a
// single frame where fewer than four are left. Rows count from top. False when a read failed.
template <class T, class Four, class One>
bool umaths_over_frames(int cn, UMaths &r, int top, int rows, Four four, One one) {
    int frame = 0;
    for (; frame + 4 <= r.dt; frame += 4)
        for (int row = 0; row < rows; ++row) {
            four_rows<T> lines;
            if (!umaths_four_rows(cn, top + row, 0, frame, 1, r, lines))
                return false;
            four(lines, row, frame);
        }
    for (; frame < r.dt; ++frame)
        for (int row = 0; row < rows; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, top + row, frame, r);
            if (line.empty())
                return false;
            one(line, row, frame);
        }
    return true;
}

// The total of every row of a plane, each as row_total gives it. False when a read failed.
template <class T> bool umaths_plane_totals(int cn, int plane, UMaths &r, std::vector<sum_of<T>> &totals) {
    constexpr int far = 64; // rows: so far apart, the four are fetched from memory side by side
    totals.resize(static_cast<std::size_t>(r.dy));
    const int apart = umaths_plane_held(r) ? std::min(far, r.dy / 4) : 0;
    int top = 0;
    for (; apart > 0 && top <= r.dy - 4 * apart; top += 4 * apart)
        for (int row = top; row < top + apart; ++row) {
            four_rows<T> rows;
            sum_of<T> four[4];
            if (!umaths_four_rows(cn, row, apart, plane, 0, r, rows))
                return false;
            row_totals(rows, static_cast<std::size_t>(r.dx), four);
            for (int k = 0; k < 4; ++k)
                totals[static_cast<std::size_t>(row + k * apart)] = four[k];
        }
    for (; top < r.dy; ++top) {
        const std::span<const T> line = umaths_row<T>(cn, top, plane, r);
        if (line.empty())
            return false;
        totals[static_cast<std::size_t>(top)] = row_total(line);
    }
    return true;
}

} // namespace kestrel
