// modules/store: the element types that modules are made with, and their numbers elsewhere: here is the only
// place that translates one into another.
#pragma once

#include "modules/store/kestrel_module.h"
#include "support/element.h"

#include <cstddef>
#include <optional>

namespace kestrel {

// Numbered as app_mkmod_head has always numbered them.
enum class mod_element : int { u_int32 = 0, float32 = 1, float64 = 2 };

namespace mod_element_detail {

struct row {
    mod_element element;
    int header_code; // data_type of a header
    int handle_type; // of a unified handle
};
inline constexpr row rows[] = {{mod_element::u_int32, MOD_U_INT32, el_long},
                               {mod_element::float32, MOD_FLOAT, el_float},
                               {mod_element::float64, MOD_DOUBLE, el_double}};

} // namespace mod_element_detail

// The data_type that a header gives it, and back; nothing for the types that are only looked at.
constexpr int mod_code_of(mod_element element) {
    return mod_element_detail::rows[static_cast<std::size_t>(element)].header_code;
}
constexpr std::optional<mod_element> mod_element_of_code(int data_type) {
    for (const auto &row : mod_element_detail::rows)
        if (row.header_code == data_type)
            return row.element;
    return std::nullopt;
}

// The type of a unified handle with such elements, and back.
constexpr int mod_handle_type_of(mod_element element) {
    return mod_element_detail::rows[static_cast<std::size_t>(element)].handle_type;
}
constexpr std::optional<mod_element> mod_element_of_handle_type(int type) {
    for (const auto &row : mod_element_detail::rows)
        if (row.handle_type == type)
            return row.element;
    return std::nullopt;
}

// Bytes of an element.
constexpr std::size_t mod_element_size(mod_element element) {
    return static_cast<std::size_t>(element_size(mod_handle_type_of(element)));
}

} // namespace kestrel
