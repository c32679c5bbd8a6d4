// pulsar3/lib/paths: the modules of a card. One that stands there with another shape is made anew; who has the old one
// mapped keeps that.
#pragma once

#include "modules/store/result_module.h"

#include <span>
#include <string>

namespace kestrel {

// Of 32-bit words, where it does not say otherwise.
struct module_shape {
    int x = 0, y = 0, t = 1;
    bool is_3d = true;
    mod_element element = mod_element::u_int32;
};

// `ours`: its name is our own; a module that somebody else named is left to him when it does not fit. 0, or a status
// with its text. The module goes with its last user unless it is kept.
int plr3_make_module(result_module &module, int to, const std::string &name, const module_shape &shape,
                     bool ours);

// All words of the module.
std::span<std::uint32_t> plr3_words(const result_module &module);

} // namespace kestrel
