#include "modules/store/headed.h"

#include "server/output.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrel {

namespace {

struct sizes {
    int x;
    int y;
    int t;
};

std::uint64_t magnitude(int size) {
    return static_cast<std::uint64_t>(std::llabs(size));
}

// Bytes of a module, or nothing when no object can be that large. A dimension of 0 leaves the header alone.
std::optional<std::size_t> total_size(std::uint64_t front, const sizes &n, std::size_t element) {
    std::uint64_t bytes = element;
    for (const int size : {n.x, n.y, n.t})
        if (__builtin_mul_overflow(bytes, magnitude(size), &bytes))
            return std::nullopt;
    if (__builtin_add_overflow(bytes, front, &bytes) || bytes > PTRDIFF_MAX)
        return std::nullopt;
    return bytes;
}

// Creates and links; empty with errno set. `made` tells that only the second link failed.
module_link make(const char *name, std::optional<std::size_t> size, bool &made) {
    made = false;
    if (!size) {
        errno = EINVAL;
        return {};
    }
    module_link link = module_link::make(name, *size);
    made = static_cast<bool>(link);
    if (!made || module_link(name))
        return link;
    datamod_remove(name, link.head());
    return {};
}

void put_label(char (&field)[MOD_LABEL_SIZE], std::string_view text) {
    std::memset(field, 0, sizeof field);
    std::memcpy(field, text.data(), std::min<std::size_t>(text.size(), MOD_LABEL_MAX));
}

std::string_view label_or(const char *label, const char *otherwise) {
    return label != nullptr ? label : otherwise;
}

// The element type goes last: whoever maps the module meanwhile finds an unknown type, not half a header.
template <class Header> void publish(void *head, Header &header) {
    const std::int32_t type = header.data_type;
    header.data_type = 0;
    std::memcpy(head, &header, sizeof header);
    std::atomic_ref<std::int32_t>(*static_cast<std::int32_t *>(head)).store(type, std::memory_order_release);
}

bool matches(int wanted, int stored) {
    return wanted == 0 || (wanted > 0 ? stored == wanted : stored >= static_cast<long long>(-1) * wanted);
}

// ---- labels of single frames

struct label_list {
    const char *const *labels = nullptr;
    std::size_t count = 0;
    std::size_t size = 0; // bytes reserved, a multiple of 16
};

// At most `count` labels, up to the first null one.
label_list measure_labels(const char *const *labels, std::uint64_t count) {
    label_list list{labels};
    if (labels == nullptr)
        return list;
    for (; list.count < count && labels[list.count] != nullptr; ++list.count)
        list.size += sizeof(std::int32_t) + std::strlen(labels[list.count]) + 1;
    list.size = (list.size + 15) / 16 * 16;
    return list;
}

void put_labels(std::byte *head, const label_list &list) {
    std::size_t at = sizeof(mod_header3d) + list.count * sizeof(std::int32_t);
    for (std::size_t i = 0; i < list.count; ++i) {
        const auto offset = static_cast<std::int32_t>(at);
        std::memcpy(head + sizeof(mod_header3d) + i * sizeof offset, &offset, sizeof offset);
        const std::size_t length = std::strlen(list.labels[i]) + 1;
        std::memcpy(head + at, list.labels[i], length);
        at += length;
    }
}

// ---- existing modules

bool fits_2d(int cn, const char *name, void *head, const sizes &n, int data_type) {
    module_view view;
    if (mod_look(cn, name, head, view) != 0)
        return false;
    if (view.is_3d) {
        sv_printf(cn, "! Error: Module '%s' exists but is not a 2D module, cannot change type\n", name);
        return false;
    }
    if (!matches(n.x, view.num_x) || !matches(n.y, view.num_y)) {
        sv_printf(cn, "! Error, module '%s' exists but is wrong size (%d,%d) not (%d, %d)\n", name,
                  view.num_x, view.num_y, n.x, n.y);
        return false;
    }
    if (view.data_type != data_type) {
        sv_printf(cn, "! Error, module '%s' exists but is wrong data type %d not %d\n", name, view.data_type,
                  data_type);
        return false;
    }
    return true;
}

bool fits_3d(int cn, const char *name, void *head, const sizes &n, int data_type, std::size_t labels_size) {
    module_view view;
    if (mod_look(cn, name, head, view) != 0)
        return false;
    if (!view.is_3d) {
        sv_printf(cn, "! ERROR: Module '%s' exists but is not a 3D module, cannot change type\n", name);
        return false;
    }
    if (!matches(n.x, view.num_x) || !matches(n.y, view.num_y) || !matches(n.t, view.num_t)) {
        sv_printf(cn, "! ERROR, module '%s' exists but is wrong size (%d,%d, %d) not (%d, %d, %d)\n", name,
                  view.num_x, view.num_y, view.num_t, n.x, n.y, n.t);
        return false;
    }
    if (view.data_type != data_type) {
        sv_printf(cn, "ERROR, module '%s' exists but is wrong data type %d not %d\n", name, view.data_type,
                  data_type);
        return false;
    }
    mod_header3d copy;
    std::memcpy(&copy, head, sizeof copy);
    if (copy.labels_size < 0 || static_cast<std::size_t>(copy.labels_size) < labels_size) {
        sv_printf(cn, "ERROR, module '%s' exists has only %d bytes allowed for labels, now need %d\n", name,
                  copy.labels_size, static_cast<int>(labels_size));
        return false;
    }
    return true;
}

// ---- new modules

module_link create_2d(int cn, const char *name, const sizes &n, const char *x_lab, const char *y_lab,
                      int data_type) {
    bool made = false;
    module_link link =
        make(name, total_size(sizeof(mod_header), n, kestrel_module_element_size(data_type)), made);
    if (!link) {
        if (made)
            sv_printf(cn, "! Cannot link to module I just made. Why?\n");
        else
            sv_printf(cn, "! Cannot create data module \"%s\", errno = %d.\n", name, errno);
        return {};
    }
    mod_header header{};
    header.data_type = data_type;
    header.disp_type = MOD_DISP_2D;
    header.num_x = static_cast<std::uint32_t>(magnitude(n.x));
    header.num_y = static_cast<std::uint32_t>(magnitude(n.y));
    header.aspect = -1.0;
    put_label(header.x_label, label_or(x_lab, "X"));
    put_label(header.y_label, label_or(y_lab, "Y"));
    put_label(header.z_label, "COUNTS");
    put_label(header.title, name);
    publish(link.head(), header);
    return link;
}

module_link create_3d(int cn, const char *name, const sizes &n, const char *x_lab, const char *y_lab,
                      const char *t_lab, const label_list &labels, int data_type, const char *mark) {
    bool made = false;
    const bool sane = labels.size <= INT_MAX - sizeof(mod_header3d);
    const std::size_t front = sizeof(mod_header3d) + labels.size;
    module_link link =
        make(name, sane ? total_size(front, n, kestrel_module_element_size(data_type)) : std::nullopt, made);
    if (!link) {
        if (made)
            sv_printf(cn, "%sCannot link to module I just made. Why?\n", mark);
        else
            sv_printf(cn, "%sCannot create data module \"%s\", errno = %d.\n", mark, name, errno);
        return {};
    }
    mod_header3d header{};
    header.data_type = data_type;
    header.disp_type = MOD_DISP_3D;
    header.num_x = static_cast<std::uint32_t>(magnitude(n.x));
    header.num_y = static_cast<std::uint32_t>(magnitude(n.y));
    header.num_t = static_cast<std::uint32_t>(magnitude(n.t));
    header.aspect = -1.0;
    put_label(header.x_label, label_or(x_lab, "X"));
    put_label(header.y_label, label_or(y_lab, "Y"));
    put_label(header.t_label, label_or(t_lab, "T"));
    put_label(header.z_label, "COUNTS");
    put_label(header.title, name);
    header.labels_num = static_cast<std::int32_t>(labels.count);
    header.labels_size = static_cast<std::int32_t>(labels.size);
    header.data_offset = static_cast<std::int32_t>(labels.size + sizeof(mod_header3d));
    put_labels(static_cast<std::byte *>(link.head()), labels);
    publish(link.head(), header);
    return link;
}

} // namespace

bool mod_make_2d(int cn, const char *name, int num_x, int num_y, const char *x_lab, const char *y_lab,
                 int data_type, module_link &mod_head) {
    const sizes n{num_x, num_y, 1};
    module_link link(name);
    if (!link) {
        link = create_2d(cn, name, n, x_lab, y_lab, data_type);
        if (!link)
            return false;
    } else {
        if (!fits_2d(cn, name, link.head(), n, data_type))
            return false;
        sv_printf(cn, "# Warning: module \"%s\" already exists\n", name);
    }
    mod_head = std::move(link);
    return true;
}

bool mod_make_3d(int cn, const char *name, const mod_axes3d &axes, const char *const *labels, int data_type,
                 const char *mark, module_link &mod_head) {
    const sizes n{axes.num_x, axes.num_y, axes.num_t};
    const label_list list = measure_labels(labels, magnitude(axes.num_t));
    module_link link(name);
    if (!link) {
        link = create_3d(cn, name, n, axes.x_lab, axes.y_lab, axes.t_lab, list, data_type, mark);
        if (!link)
            return false;
    } else {
        if (!fits_3d(cn, name, link.head(), n, data_type, list.size))
            return false;
        sv_printf(cn, "# Warning: module \"%s\" already exists\n", name);
    }
    mod_head = std::move(link);
    return true;
}

MOD_IMAGE *app_mkmod_head(int cn, const char *name, int num_x, int num_y, const char *x_lab,
                          const char *y_lab, mod_element data_float, module_link &mod_head) {
    const bool made = mod_make_2d(cn, name, num_x, num_y, x_lab, y_lab, mod_code_of(data_float), mod_head);
    return made ? static_cast<MOD_IMAGE *>(mod_head.head()) : nullptr;
}

MOD_IMAGE3D *app_mkmod3d(int cn, const char *name, int num_x, int num_y, int num_t, const char *x_lab,
                         const char *y_lab, const char *t_lab, const char *const *labels,
                         mod_element data_float, module_link &mod_head) {
    const bool made = mod_make_3d(cn, name, {num_x, num_y, num_t, x_lab, y_lab, t_lab}, labels,
                                  mod_code_of(data_float), "! ERROR: ", mod_head);
    return made ? static_cast<MOD_IMAGE3D *>(mod_head.head()) : nullptr;
}

int mkmod_head(int cn, const char *name, int num_x, int num_y, const char *x_lab, const char *y_lab,
               mod_element data_float) {
    module_link link;
    return app_mkmod_head(cn, name, num_x, num_y, x_lab, y_lab, data_float, link) != nullptr ? 0 : -1;
}

int mkmod_head3d(int cn, const char *name, int num_x, int num_y, int num_t, const char *x_lab,
                 const char *y_lab, const char *t_lab, mod_element data_float) {
    module_link link;
    return app_mkmod3d(cn, name, num_x, num_y, num_t, x_lab, y_lab, t_lab, nullptr, data_float, link) !=
                   nullptr
               ? 0
               : -1;
}

module_link app_mkmod_nohead(int cn, const char *name, int n) {
    if (module_link link(name); link) {
        sv_printf(cn, "# Warning: module \"%s\" already exists.\n", name);
        return link;
    }
    if (n <= 0)
        errno = EINVAL;
    module_link link = n > 0 ? module_link::make(name, 4 * static_cast<std::size_t>(n)) : module_link();
    if (!link)
        sv_printf(cn, "! Cannot create data module \"%s\", errno = %d.\n", name, errno);
    return link;
}

int mkmod_nohead(int cn, const char *name, int n) {
    return app_mkmod_nohead(cn, name, n) ? 0 : -1;
}

namespace {

void put_u32(std::byte *head, std::size_t offset, int value) {
    const auto stored = static_cast<std::uint32_t>(value);
    std::memcpy(head + offset, &stored, sizeof stored);
}

} // namespace

int app_mod_resize(int cn, void *head, int num_x, int num_y, int num_t) {
    const std::string name = mod_title(head);
    module_view view;
    if (mod_look(cn, name.c_str(), head, view) != 0)
        return -1;
    num_t = num_t == 0 ? 1 : num_t;
    if (num_x < 0 || num_y < 0 || num_t < 0) {
        sv_printf(cn, "! ERROR: Data module '%s' cannot have the size (%d, %d, %d)\n", name.c_str(), num_x,
                  num_y, num_t);
        return -1;
    }
    if (!view.is_3d && num_t > 1) {
        sv_printf(cn, "! ERROR: Cannot resize a 2-d data module to 3-d (num_t > 1)\n");
        return -1;
    }
    const off_t capacity = datamod_mod_size(head);
    const auto need = total_size(view.data_offset, {num_x, num_y, num_t}, view.element_size);
    const bool fits = need && static_cast<off_t>(*need) <= capacity;
    if (!fits && view.is_3d) {
        sv_printf(cn, "! ERROR: Data module '%s' size (%d, %d, %d) too small to resize to (%d, %d, %d)\n",
                  name.c_str(), view.num_x, view.num_y, view.num_t, num_x, num_y, num_t);
        return -1;
    }
    if (!fits) {
        sv_printf(
            cn,
            "ERROR: Data module '%s' size (%d, %d) size %zd too small to resize to (%d, %d) requires %zd\n",
            name.c_str(), view.num_x, view.num_y, static_cast<ssize_t>(capacity), num_x, num_y,
            static_cast<ssize_t>(need.value_or(PTRDIFF_MAX)));
        return -1;
    }
    put_u32(view.head, offsetof(mod_header, num_x), num_x);
    put_u32(view.head, offsetof(mod_header, num_y), num_y);
    if (view.is_3d)
        put_u32(view.head, offsetof(mod_header3d, num_t), num_t);
    return 0;
}

bool mod_set_labels(void *head, std::span<const std::string> labels) {
    module_view view;
    if (mod_look(head, view) != nullptr || !view.is_3d)
        return false;
    std::vector<const char *> texts;
    for (const std::string &label : labels)
        texts.push_back(label.c_str());
    const label_list list = measure_labels(texts.data(), texts.size());
    if (list.size > view.data_offset - sizeof(mod_header3d))
        return false;
    put_labels(view.head, list);
    const auto count = static_cast<std::int32_t>(list.count);
    std::memcpy(view.head + offsetof(mod_header3d, labels_num), &count, sizeof count);
    return true;
}

int clear_mod(void *head) {
    module_view view;
    if (mod_look(head, view) != nullptr)
        return -1;
    std::memset(view.data(), 0, view.elements() * view.element_size);
    return 0;
}

} // namespace kestrel
