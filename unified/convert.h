// unified: from one element type to another, with scaling on the way. Knows spans of elements only.
#pragma once

#include "support/element.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace kestrel {

struct scaling {
    bool active = false;
    double factor = 1.0;
    double constant = 0.0;
};

// Converts `count` elements; result = value x factor + constant in double precision where scaling is active.
// To an integer type a value is cut toward zero and kept within the type's limits, and NaN gives 0; to a
// float it is rounded as IEEE 754 says. There is no way to el_int48, except from itself without scaling.
// The buffers need no alignment and must not overlap.
void convert_elements(const void *from, int from_type, void *to, int to_type, std::size_t count,
                      const scaling &scale = {});

// Narrow a buffer's elements in place, keeping them within the limits of the smaller type.
void cvt_stob(void *buffer, std::size_t elements);
void cvt_ltob(void *buffer, std::size_t elements);
void cvt_ltos(void *buffer, std::size_t elements);

// An unsigned 48-bit integer as it lies in a buffer.
struct int48 {
    unsigned char bytes[6];
    std::uint64_t value() const {
        std::uint64_t v = 0;
        std::memcpy(&v, bytes, sizeof bytes);
        if constexpr (std::endian::native == std::endian::big)
            v >>= 16;
        return v;
    }
};

// The value as a T: cut, limited, NaN as 0 for integers; rounded for floats.
template <class T> T narrow(double value) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(value);
    } else {
        // The limit as a double may be one above the type's largest value: it is met before the cast.
        constexpr double top = static_cast<double>(std::numeric_limits<T>::max());
        constexpr double bottom = static_cast<double>(std::numeric_limits<T>::min());
        if (!(value > bottom))
            return value <= bottom ? std::numeric_limits<T>::min() : T{0};
        return value >= top ? std::numeric_limits<T>::max() : static_cast<T>(value);
    }
}

// Calls f with a value of the C++ type that stands for an element type (f is instantiated for each of them):
// the one place where a command turns a type number into a loop.
template <class F> void with_element_type(int type, F &&f) {
    switch (type) {
    case el_byte:
        return f(std::uint8_t{});
    case el_short:
        return f(std::uint16_t{});
    case el_long:
        return f(std::uint32_t{});
    case el_float:
        return f(float{});
    case el_int48:
        return f(int48{});
    case el_double:
        return f(double{});
    case el_int64:
        return f(std::int64_t{});
    default:
        return;
    }
}

template <class T> T load_element(const std::byte *buffer, std::size_t index) {
    T value;
    std::memcpy(&value, buffer + index * sizeof(T), sizeof(T));
    return value;
}

template <class T> void store_element(std::byte *buffer, std::size_t index, T value) {
    std::memcpy(buffer + index * sizeof(T), &value, sizeof(T));
}

} // namespace kestrel
