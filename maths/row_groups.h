// maths: taking the rows of a region by fours, on all processors, where the region can be held. Each result is the
// one that the rows taken singly, in order, give.
#pragma once

#include "maths/kernels.h"
#include "maths/share.h"

#include <algorithm>
#include <vector>

namespace kestrel {

// Four rows of a plane, `apart` from each other, or of four planes.
template <class T>
four_rows<T> umaths_four_rows(const umaths_rows &rows, int row, int apart, int plane, int planes_apart) {
    four_rows<T> four;
    for (int k = 0; k < 4; ++k)
        four[static_cast<std::size_t>(k)] = rows.row<T>(row + k * apart, plane + k * planes_apart);
    return four;
}

// Works out `of[plane * dy + row]` for every row of a region that is all held: by_four(four, of four rows), one(row).
// False after ^C.
template <class T, class R, class Four, class One>
bool umaths_by_rows(int cn, UMaths &r, const umaths_rows &rows, std::vector<R> &of, Four by_four, One one) {
    constexpr int far = 64; // rows: so far apart, the four are fetched from memory side by side
    const int blocks = (r.dy + 4 * far - 1) / (4 * far);
    const std::size_t height = static_cast<std::size_t>(r.dy), width = static_cast<std::size_t>(r.dx);
    of.resize(height * static_cast<std::size_t>(r.dt));
    return umaths_share(cn, r, blocks * r.dt, [&](int part) {
        const int plane = part / blocks, top = part % blocks * 4 * far, end = std::min(top + 4 * far, r.dy);
        const int apart = (end - top) / 4;
        R *const results = &of[static_cast<std::size_t>(plane) * height];
        for (int row = top; row < top + apart; ++row) {
            R four[4];
            by_four(umaths_four_rows<T>(rows, row, apart, plane, 0), four);
            for (int k = 0; k < 4; ++k)
                results[row + k * apart] = four[k];
        }
        for (int row = top + 4 * apart; row < end; ++row)
            results[row] = one(std::span<const T>(rows.row<T>(row, plane), width));
    });
}

// Goes through rows top to top + count - 1 of all frames, frames in order: four(lines, row, frame) gets a row of
// four frames from `frame` on, one(line, row, frame) the row of a single frame where fewer than four are left. Rows
// count from top.
template <class T, class Four, class One>
void umaths_over_frames(const UMaths &r, const umaths_rows &rows, int top, int count, Four four, One one) {
    int frame = 0;
    for (; frame + 4 <= r.dt; frame += 4)
        for (int row = 0; row < count; ++row)
            four(umaths_four_rows<T>(rows, top + row, 0, frame, 1), row, frame);
    for (; frame < r.dt; ++frame)
        for (int row = 0; row < count; ++row)
            one(std::span<const T>(rows.row<T>(top + row, frame), static_cast<std::size_t>(r.dx)), row,
                frame);
}

// Shorter rows are not worth a place of their own in memory.
inline bool umaths_long_rows(const UMaths &r) {
    return r.dx >= 64;
}

// Calls each(total, row, plane) with the total of every row, in order. False when a read failed or ^C came.
template <class T, class F> bool umaths_row_totals(int cn, UMaths &r, F each) {
    if (umaths_all_held(r) && umaths_long_rows(r)) {
        const auto rows = umaths_all_rows(cn, r);
        const std::size_t count = static_cast<std::size_t>(r.dx);
        std::vector<sum_of<T>> totals;
        if (!rows || !umaths_by_rows<T>(
                         cn, r, *rows, totals,
                         [&](const four_rows<T> &four, sum_of<T> *of) { row_totals(four, count, of); },
                         [](std::span<const T> row) { return row_total(row); }))
            return false;
        const sum_of<T> *total = totals.data();
        for (int plane = 0; plane < r.dt; ++plane)
            for (int row = 0; row < r.dy; ++row)
                each(*total++, row, plane);
        return true;
    }
    for (int plane = 0; plane < r.dt; ++plane)
        for (int row = 0; row < r.dy; ++row) {
            const std::span<const T> line = umaths_row<T>(cn, row, plane, r);
            if (line.empty())
                return false;
            each(row_total(line), row, plane);
        }
    return true;
}

} // namespace kestrel
