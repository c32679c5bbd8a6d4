#include "unified/convert.h"

#include <algorithm>

namespace kestrel {

namespace {

template <class T> double as_double(T value) {
    if constexpr (std::is_same_v<T, int48>)
        return static_cast<double>(value.value());
    else
        return static_cast<double>(value);
}

// Without scaling, between integers without the detour over doubles (64-bit values keep every bit).
template <class To, class From> To plain(From value) {
    if constexpr (std::is_same_v<From, int48>) {
        return plain<To>(static_cast<std::int64_t>(value.value()));
    } else if constexpr (std::is_floating_point_v<To> || std::is_same_v<To, From>) {
        return static_cast<To>(value);
    } else if constexpr (std::is_floating_point_v<From>) {
        return narrow<To>(static_cast<double>(value));
    } else {
        const auto wide = static_cast<std::int64_t>(value);
        return static_cast<To>(std::clamp<std::int64_t>(
            wide, std::numeric_limits<To>::min(), static_cast<std::int64_t>(std::numeric_limits<To>::max())));
    }
}

template <class From, class To>
void convert_all(const std::byte *from, std::byte *to, std::size_t count, const scaling &scale) {
    if (!scale.active) {
        for (std::size_t i = 0; i < count; ++i)
            store_element(to, i, plain<To>(load_element<From>(from, i)));
        return;
    }
    const double factor = scale.factor;
    const double constant = scale.constant;
    for (std::size_t i = 0; i < count; ++i)
        store_element(to, i, narrow<To>(as_double(load_element<From>(from, i)) * factor + constant));
}

template <class From, class To> void narrow_in_place(void *buffer, std::size_t elements) {
    auto *bytes = static_cast<std::byte *>(buffer);
    for (std::size_t i = 0; i < elements; ++i)
        store_element(bytes, i, plain<To>(load_element<From>(bytes, i)));
}

} // namespace

void convert_elements(const void *from, int from_type, void *to, int to_type, std::size_t count,
                      const scaling &scale) {
    if (from_type == to_type && !scale.active) {
        std::memcpy(to, from, count * static_cast<std::size_t>(element_size(to_type)));
        return;
    }
    const auto *source = static_cast<const std::byte *>(from);
    auto *target = static_cast<std::byte *>(to);
    with_element_type(from_type, [&](auto f) {
        with_element_type(to_type, [&](auto t) {
            using To = decltype(t);
            if constexpr (!std::is_same_v<To, int48>)
                convert_all<decltype(f), To>(source, target, count, scale);
        });
    });
}

void cvt_stob(void *buffer, std::size_t elements) {
    narrow_in_place<std::uint16_t, std::uint8_t>(buffer, elements);
}
void cvt_ltob(void *buffer, std::size_t elements) {
    narrow_in_place<std::uint32_t, std::uint8_t>(buffer, elements);
}
void cvt_ltos(void *buffer, std::size_t elements) {
    narrow_in_place<std::uint32_t, std::uint16_t>(buffer, elements);
}

} // namespace kestrel
