#include "pulsar3/lib/paths/card_module.h"

#include "modules/store/store.h"
#include "pulsar3/lib/wire/error.h"

#include <cerrno>

namespace kestrel {

namespace {

bool fits(const module_view &view, const module_shape &s) {
    return view.data_type == mod_code_of(s.element) && view.num_x == s.x && view.num_y == s.y &&
           view.num_t == s.t;
}

} // namespace

int plr3_make_module(result_module &module, int to, const std::string &name, const module_shape &shape,
                     bool ours) {
    if (module.find(name.c_str())) {
        if (module.look(-1) == 0 && fits(module.view(), shape))
            return 0;
        if (ours)
            datamod_remove(name.c_str(), module.head()); // where that fails, making the new one says why
        module.reset();
    } else if (ours && errno != ENOENT) {
        datamod_free_name(name.c_str()); // what another process has left of it
    }
    const module_plan plan{shape.element, shape.x, shape.y, shape.t, shape.is_3d};
    if (module.make(to, name.c_str(), plan) != 0)
        return plr3_fail(plr3_failed, "plr3_do_config: cannot make module '%s'", name.c_str());
    return 0;
}

std::span<std::uint32_t> plr3_words(const result_module &module) {
    if (!module)
        return {};
    const module_view &view = module.view();
    return {reinterpret_cast<std::uint32_t *>(view.data()), view.elements()};
}

} // namespace kestrel
