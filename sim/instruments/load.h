// sim/instruments: a detector as a supply sees it: a leakage current, and a breakdown above some voltage.
#pragma once

namespace kestrel {

struct load {
    double leak_ohms = 1e10;
    double breakdown_volts = 1e6; // of either sign
    double breakdown_ohms = 1e5;  // of what flows besides, above that

    // Amperes at this voltage.
    double current(double volts) const;
    // The voltage nearest to this one at which no more than so many amperes flow.
    double held_at(double volts, double amperes) const;
};

} // namespace kestrel
