// support: the element types that data are exchanged in, and their sizes. Uses nothing.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

// Numbered as handles and their queries number them.
enum element_type : int {
    el_none = 0,
    el_byte = 1,   // unsigned 8 bits
    el_short = 2,  // unsigned 16 bits
    el_long = 3,   // unsigned 32 bits
    el_float = 4,  // IEEE, 32 bits
    el_int48 = 5,  // unsigned, 6 bytes, in this machine's byte order, not aligned
    el_double = 6, // IEEE, 64 bits
    el_int64 = 7,  // signed 64 bits
};

inline constexpr int element_types = 8;
inline constexpr int element_sizes[element_types] = {0, 1, 2, 4, 4, 6, 8, 8};
inline constexpr const char *element_names[element_types] = {"",      "byte",  "short",  "long",
                                                             "float", "int48", "double", "int64"};

// Bytes of an element; 0 for a type that does not exist.
constexpr int element_size(int type) {
    return type < 0 || type >= element_types ? 0 : element_sizes[type];
}

} // namespace kestrel
