#include "sim/instruments/load.h"

#include <algorithm>
#include <cmath>

namespace kestrel {

double load::current(double volts) const {
    const double above = std::max(std::abs(volts) - breakdown_volts, 0.0);
    return volts / leak_ohms + std::copysign(above / breakdown_ohms, volts);
}

double load::held_at(double volts, double amperes) const {
    if (std::abs(current(volts)) <= amperes)
        return volts;
    const double straight = amperes * leak_ohms;
    if (straight <= breakdown_volts)
        return std::copysign(straight, volts);
    return std::copysign(
        (amperes + breakdown_volts / breakdown_ohms) / (1.0 / leak_ohms + 1.0 / breakdown_ohms), volts);
}

} // namespace kestrel
