#include "maths/module_rows.h"

#include "server/output.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>

namespace kestrel {

namespace {

bool same_size(const module_view &a, const module_view &b) {
    return a.num_x == b.num_x && a.num_y == b.num_y && a.num_t == b.num_t;
}

} // namespace

int linked_module::rows() const {
    const long long all = static_cast<long long>(view.num_y) * view.num_t;
    return static_cast<int>(std::min<long long>(all, std::numeric_limits<int>::max()));
}

int umaths_link_module(int cn, const char *name, linked_module &out) {
    out.link = module_link(name);
    if (!out.link) {
        sv_printf(cn, "! Cannot link to module '%s', errno = %d\n", name, errno);
        return -1;
    }
    return mod_look(cn, name, out.link.head(), out.view);
}

int umaths_module_like(int cn, const char *name, const module_view &like, mod_element element,
                       result_module &out) {
    if (out.find(name)) {
        if (out.look(cn) != 0)
            return -1;
    } else {
        sv_printf(cn, "# Module '%s' not found, making it as %s module\n", name, like.is_3d ? "3D" : "2D");
        if (out.make(cn, name, {element, like.num_x, like.num_y, like.num_t, like.is_3d}) != 0)
            return -1;
    }
    const module_view &mod = out.view();
    if (same_size(mod, like))
        return 0;
    sv_printf(cn, "! Error, module '%s' exists but is wrong size (%d,%d,%d) not (%d,%d,%d)\n", name,
              mod.num_x, mod.num_y, mod.num_t, like.num_x, like.num_y, like.num_t);
    return -1;
}

int umaths_check_row(int cn, const char *what, const linked_module &module, int row) {
    if (row >= 0 && row < module.rows())
        return 0;
    sv_printf(cn, "! %s should be 0..%d not %d\n", what, module.rows() - 1, row);
    return -1;
}

void umaths_get_elements(const module_view &view, int x, int y, int t, std::span<double> values) {
    const std::byte *from = view.at(x, y, t);
    for (double &value : values) {
        value = mod_get_element(from, view.data_type);
        from += view.element_size;
    }
}

void umaths_put_elements(const module_view &view, int x, int y, int t, std::span<const double> values) {
    const bool real = view.data_type == MOD_FLOAT || view.data_type == MOD_DOUBLE;
    std::byte *to = view.at(x, y, t);
    for (const double value : values) {
        mod_put_element(to, view.data_type, real ? value : std::floor(value + 0.5));
        to += view.element_size;
    }
}

} // namespace kestrel
