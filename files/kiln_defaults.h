// files: what headers say of detectors unless the command says otherwise. One for the process, command thread.
#pragma once

#include <cstddef>

namespace kestrel {

inline constexpr std::size_t kiln_title_max = 80; // characters

struct kiln_header_defaults_record {
    int saxs_det = 0; // type code; the low 8 bits are the detector's serial number
    int saxs_disp = 0;
    int waxs_det = 0;
    int waxs_disp = 0;
    int cal_chan = 0;
    int cal_chan_disp = 0;
    char title[kiln_title_max + 2] = "";
};

extern kiln_header_defaults_record kiln_header_defaults;

} // namespace kestrel
