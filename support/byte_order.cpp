#include "support/byte_order.h"

#include "support/element.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace kestrel {

namespace {

std::uint16_t swapped(std::uint16_t value) {
    return __builtin_bswap16(value);
}
std::uint32_t swapped(std::uint32_t value) {
    return __builtin_bswap32(value);
}
std::uint64_t swapped(std::uint64_t value) {
    return __builtin_bswap64(value);
}

template <class T> void swap_all(void *buffer, std::size_t elements) {
    auto *bytes = static_cast<unsigned char *>(buffer);
    for (std::size_t i = 0; i < elements; ++i) {
        T value;
        std::memcpy(&value, bytes + i * sizeof(T), sizeof(T));
        value = swapped(value);
        std::memcpy(bytes + i * sizeof(T), &value, sizeof(T));
    }
}

} // namespace

void unif_swab_s(void *buffer, std::size_t elements) {
    swap_all<std::uint16_t>(buffer, elements);
}
void unif_swab_l(void *buffer, std::size_t elements) {
    swap_all<std::uint32_t>(buffer, elements);
}
void unif_swab_d(void *buffer, std::size_t elements) {
    swap_all<std::uint64_t>(buffer, elements);
}

void unif_swab_i4(void *buffer, std::size_t elements) {
    auto *bytes = static_cast<unsigned char *>(buffer);
    for (std::size_t i = 0; i < elements; ++i, bytes += 6) {
        unif_swab_s(bytes, 1);
        unif_swab_l(bytes + 2, 1);
    }
}

void unif_swab_i6(void *buffer, std::size_t elements) {
    auto *bytes = static_cast<unsigned char *>(buffer);
    for (std::size_t i = 0; i < elements; ++i, bytes += 6)
        std::reverse(bytes, bytes + 6);
}

void swap_elements(void *buffer, std::size_t elements, int type) {
    switch (type) {
    case el_short:
        return unif_swab_s(buffer, elements);
    case el_long:
    case el_float:
        return unif_swab_l(buffer, elements);
    case el_int48:
        return unif_swab_i6(buffer, elements);
    case el_double:
    case el_int64:
        return unif_swab_d(buffer, elements);
    default:
        return;
    }
}

} // namespace kestrel
