#include "modules/store/view.h"

#include "server/output.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace kestrel {

namespace {

const char *fault_text(kestrel_module_fault fault) {
    switch (fault) {
    case KESTREL_MODULE_TOO_SHORT:
        return "has no header";
    case KESTREL_MODULE_BAD_TYPE:
        return "has an unknown data type in its header";
    case KESTREL_MODULE_BAD_KIND:
        return "is neither a 2-D nor a 3-D module by its header";
    case KESTREL_MODULE_BAD_OFFSET:
        return "has a data offset in its header that does not fit its size";
    case KESTREL_MODULE_TOO_LARGE:
        return "has dimensions in its header that do not fit its size";
    default:
        return nullptr;
    }
}

} // namespace

const char *mod_look(void *head, module_view &view) {
    const off_t size = datamod_mod_size(head);
    if (size < 0)
        return "is not linked";
    if (!datamod_is_whole(head))
        return "was cut short by another process";
    kestrel_module module;
    if (const char *fault = fault_text(kestrel_module_look(head, static_cast<std::size_t>(size), &module)))
        return fault;
    view.data_type = module.data_type;
    view.is_3d = module.is_3d != 0;
    view.num_x = static_cast<int>(module.num_x);
    view.num_y = static_cast<int>(module.num_y);
    view.num_t = static_cast<int>(module.num_t);
    view.element_size = module.element_size;
    view.data_offset = module.data_offset;
    view.head = static_cast<std::byte *>(head);
    return nullptr;
}

int mod_look(int cn, const char *name, void *head, module_view &view) {
    const char *fault = mod_look(head, view);
    if (fault == nullptr)
        return 0;
    sv_printf(cn, "! ERROR: module '%s' %s\n", name, fault);
    return -1;
}

std::optional<mod_stored> mod_read_header(const void *head) {
    const off_t size = datamod_mod_size(head);
    if (size < static_cast<off_t>(sizeof(mod_header)) || !datamod_is_whole(head))
        return std::nullopt;
    mod_header flat;
    std::memcpy(&flat, head, sizeof flat);
    mod_stored stored{flat.data_type, static_cast<std::uint32_t>(flat.disp_type) >> 16 == 1, flat.num_x,
                      flat.num_y, 1};
    if (!stored.is_3d)
        return stored;
    if (size < static_cast<off_t>(sizeof(mod_header3d)))
        return std::nullopt;
    mod_header3d frames;
    std::memcpy(&frames, head, sizeof frames);
    stored.num_t = frames.num_t;
    return stored;
}

std::optional<int> mod_data_type(const void *head) {
    if (datamod_mod_size(head) < static_cast<off_t>(sizeof(std::int32_t)) || !datamod_is_whole(head))
        return std::nullopt;
    std::int32_t type = 0;
    std::memcpy(&type, head, sizeof type);
    return type;
}

void *id_get_ptr(void *head, int x, int y, int t) {
    mod_header copy;
    std::memcpy(&copy, head, sizeof copy);
    const auto size = static_cast<std::ptrdiff_t>(kestrel_module_element_size(copy.data_type));
    if (size == 0) {
        std::printf("id_get_ptr:Unknown data type %d \n", copy.data_type);
        return nullptr;
    }
    std::ptrdiff_t offset = sizeof(mod_header);
    std::ptrdiff_t row = y;
    if (static_cast<std::uint32_t>(copy.disp_type) >> 16 == 1) {
        std::int32_t from;
        std::memcpy(&from, static_cast<std::byte *>(head) + offsetof(mod_header3d, data_offset), sizeof from);
        offset = from;
        row += static_cast<std::ptrdiff_t>(t) * copy.num_y;
    }
    return static_cast<std::byte *>(head) + offset + (row * copy.num_x + x) * size;
}

int id_labels_num(void *head) {
    module_view view;
    if (mod_look(head, view) != nullptr || !view.is_3d)
        return 0;
    std::int32_t num = 0;
    std::memcpy(&num, view.head + offsetof(mod_header3d, labels_num), sizeof num);
    const std::size_t room = (view.data_offset - sizeof(mod_header3d)) / sizeof(std::int32_t);
    return static_cast<int>(std::min<std::size_t>(room, static_cast<std::size_t>(std::max(num, 0))));
}

std::string id_get_label(void *head, int i) {
    module_view view;
    if (mod_look(head, view) != nullptr || !view.is_3d || i < 0)
        return {};
    mod_header3d copy;
    std::memcpy(&copy, head, sizeof copy);
    // The table and the strings lie between the header and the data.
    const std::size_t entry = sizeof copy + sizeof(std::int32_t) * static_cast<std::size_t>(i);
    if (i >= copy.labels_num || entry + sizeof(std::int32_t) > view.data_offset)
        return {};
    std::int32_t offset;
    std::memcpy(&offset, view.head + entry, sizeof offset);
    if (offset < static_cast<std::int32_t>(sizeof copy) ||
        static_cast<std::size_t>(offset) >= view.data_offset)
        return {};
    const auto *text = reinterpret_cast<const char *>(view.head) + offset;
    return {text, ::strnlen(text, view.data_offset - static_cast<std::size_t>(offset))};
}

namespace {

template <class T> T load(const std::byte *at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

template <class T> void store(std::byte *at, T value) {
    std::memcpy(at, &value, sizeof value);
}

// Toward zero, as a 64-bit integer; what does not fit takes the nearest that does, and NaN gives 0.
std::int64_t cut(double value) {
    if (std::isnan(value))
        return 0;
    if (value >= 0x1p63)
        return INT64_MAX;
    if (value < -0x1p63)
        return INT64_MIN;
    return static_cast<std::int64_t>(value);
}

} // namespace

double mod_get_element(const std::byte *at, int data_type) {
    switch (data_type) {
    case MOD_FLOAT:
        return static_cast<double>(load<float>(at));
    case MOD_DOUBLE:
        return load<double>(at);
    case MOD_U_INT32:
        return static_cast<double>(load<std::uint32_t>(at));
    case MOD_INT16:
        return static_cast<double>(load<std::uint16_t>(at));
    default:
        return 0.0;
    }
}

void mod_put_element(std::byte *at, int data_type, double value) {
    switch (data_type) {
    case MOD_FLOAT:
        return store(at, static_cast<float>(value));
    case MOD_DOUBLE:
        return store(at, value);
    case MOD_U_INT32:
        return store(at, static_cast<std::uint32_t>(cut(value)));
    case MOD_INT16:
        return store(at, static_cast<std::uint16_t>(cut(value)));
    default:
        return;
    }
}

std::string mod_title(void *head) {
    module_view view;
    if (mod_look(head, view) != nullptr)
        return {};
    char title[MOD_LABEL_SIZE];
    std::memcpy(title, view.head + (view.is_3d ? offsetof(mod_header3d, title) : offsetof(mod_header, title)),
                sizeof title);
    std::string shown(title, ::strnlen(title, sizeof title));
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return shown;
}

} // namespace kestrel
