// The table of the `peak-fit` commands.
#include "maths/commands.h"

namespace kestrel {

namespace {

#define PEAK_FIT_LINES                                                                                       \
    " peak0 %g peak1 %g peak2 %g peak3 %g peak4 %g peak5 %g peak6 %g peak7 %g fe55 fe pt mo br cu au zr pd " \
    "sb se sn ti co zn ar mg element %s no-lor by-top-sum = %d"
#define PEAK_FIT_LINES_HELP                                                                                  \
    "Energy of peak 0 in keV/Energy of peak 1 in keV/Energy of peak 2 in keV/Energy of peak 3 in keV/"       \
    "Energy of peak 4 in keV/Energy of peak 5 in keV/Energy of peak 6 in keV/Energy of peak 7 in keV/"       \
    "Fe-55 radioactive source/Iron foil/Platinum foil L lines/Molybdenum foil/Bromine solution/Copper/"      \
    "Gold L lines/Zirconium/Palladium/Antimony/Selenium/Tin/Titanium/Cobalt/Zinc/Argon/Magnesium/"           \
    "Element name: Ni, V, Y, Al or Pb-l3 (lead L3 lines only, excited at 13.2 keV)/No Lorenzian tails/"      \
    "Sum neighbours if insufficient counts"

const PARSE_TREE peak_fit_table[] = {
    pt_command<peak_fit_module>(
        "module", "%s %s + %d %d first-eng %d last-eng %d " PEAK_FIT_LINES,
        "Peak fit usually fluorescence data in module",
        "Source module/Result module/First row/Last row/First energy point to scan "
        "for the K-alpha peak/Last energy point to scan for the K-alpha peak/" PEAK_FIT_LINES_HELP),
    pt_command<peak_fit_unified>(
        "unified", "%d %d %d %d %d %d %d %s x y t width %g " PEAK_FIT_LINES,
        "Peak fit usually fluorescence data from unified read handle",
        "Unified handle/x1/y1/t1/x2/y2/t2/Result module/Energy is along X/Energy is "
        "along Y/Energy is along T/Typical FWHM (in bins) to guide seeding/" PEAK_FIT_LINES_HELP),
    pt_command<peak_fit_set_debug>("debug", "%d pass %d = %d", "Set debugging message level",
                                   "Level/Force a single pass, usually 0..8 only"),
    pt_command<peak_fit_set_max_threads>("max-threads", "%d = %d",
                                         "Set maximum number of thread to use (1 to disable threading)",
                                         "Number of threads, 1..64"),
    pt_end(),
};

#undef PEAK_FIT_LINES
#undef PEAK_FIT_LINES_HELP

} // namespace

const PARSE_TREE row_peak_fit = pt_subtree("peak-fit", peak_fit_table, "Functions to perfrom peak fitting");

} // namespace kestrel
