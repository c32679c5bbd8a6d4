// pulsar3/lib/paths: regions of interest: each channel's table of energy ranges. The table is kept here; its card gets
// what follows from it: a word for each energy bin, the number of the bin's region.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace kestrel {

inline constexpr int plr3_max_roi = 64;              // regions of a channel
inline constexpr std::uint32_t plr3_roi_bins = 4096; // of whole spectra, in which regions are given

struct roi_region {
    std::uint32_t low = 0, high = 0; // energy bins, both within
    bool operator==(const roi_region &) const = default;
};
// As it is saved, too: no padding, the regions behind `count` zero.
struct roi_table {
    std::uint32_t count = 0;
    std::array<roi_region, plr3_max_roi> regions{};
    bool operator==(const roi_table &) const = default;
};
static_assert(sizeof(roi_table) == 516);

// Whether every region has low <= high < plr3_roi_bins and there are at most plr3_max_roi; what follows them does not
// count.
bool plr3_roi_is_sound(const roi_table &table);

// Sets a channel's regions (-1: of all): the first that has a bin counts. None: an empty table. 0, or a negative status
// with its text kept.
int plr3_set_roi(int path, int chan, std::span<const roi_region> regions);
int plr3_get_roi(int path, int chan, roi_table &table);

} // namespace kestrel
