#include "maths/peak_fit/spectra.h"

#include <cstdint>
#include <cstring>

namespace kestrel {

namespace {

template <class T> void add_elements(const std::byte *at, std::size_t step, std::vector<double> &spectrum) {
    for (double &channel : spectrum) {
        T value;
        std::memcpy(&value, at, sizeof value);
        channel += static_cast<double>(value);
        at += step;
    }
}

} // namespace

void peak_spectra::get(int q, int s, std::vector<double> &spectrum) const {
    spectrum.assign(static_cast<std::size_t>(channels), 0.0);
    add(q, s, spectrum);
}

void peak_spectra::add(int q, int s, std::vector<double> &spectrum) const {
    const std::byte *at = first + static_cast<std::size_t>(q) * q_step + static_cast<std::size_t>(s) * s_step;
    if (type == el_long)
        add_elements<std::uint32_t>(at, energy_step, spectrum);
    else if (type == el_float)
        add_elements<float>(at, energy_step, spectrum);
    else
        add_elements<double>(at, energy_step, spectrum);
}

} // namespace kestrel
