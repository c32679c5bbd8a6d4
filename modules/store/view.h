// modules/store: looking at a mapped module. A header may be changed by another process at any time: it is
// read once, checked against the mapping, and only the checked copy is used.
#pragma once

#include "modules/store/kestrel_module.h"
#include "modules/store/store.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace kestrel {

struct MOD_IMAGE {
    mod_header head;
    std::byte *data() { return reinterpret_cast<std::byte *>(this) + sizeof head; }
};

struct MOD_IMAGE3D {
    mod_header3d head;
    std::byte *data() { return reinterpret_cast<std::byte *>(this) + head.data_offset; }
};

// A module as its header says, all of it inside the mapping; the address is valid while the link is held.
struct module_view {
    int data_type = 0;
    bool is_3d = false;
    int num_x = 0;
    int num_y = 0;
    int num_t = 0; // 1 for a 2-D module
    std::size_t element_size = 0;
    std::size_t data_offset = 0;
    std::byte *head = nullptr;

    std::byte *data() const { return head + data_offset; }
    std::byte *at(int x, int y, int t) const {
        const std::size_t row =
            static_cast<std::size_t>(t) * static_cast<std::size_t>(num_y) + static_cast<std::size_t>(y);
        return data() + (row * static_cast<std::size_t>(num_x) + static_cast<std::size_t>(x)) * element_size;
    }
    std::size_t elements() const {
        return static_cast<std::size_t>(num_x) * static_cast<std::size_t>(num_y) *
               static_cast<std::size_t>(num_t);
    }
    bool holds(int x, int y, int t) const {
        return x >= 0 && y >= 0 && t >= 0 && x < num_x && y < num_y && t < num_t;
    }
};

// Null, or why the module cannot be used.
const char *mod_look(void *head, module_view &view);

// The same; prints "! ERROR: module '%s' %s" to the session and returns -1 when it cannot be used.
int mod_look(int cn, const char *name, void *head, module_view &view);

// What a header says, unchecked; nothing where there is none or no longer all of the module.
struct mod_stored {
    int data_type;
    bool is_3d;
    std::uint32_t num_x, num_y, num_t;
};
std::optional<mod_stored> mod_read_header(const void *head);

// The first word, where a header has its element type, whatever it is; nothing where there is no longer all of the
// module.
std::optional<int> mod_data_type(const void *head);

// Element (x, y, t) as the header stands, without any check; null after a message on standard output for an
// unknown data type.
void *id_get_ptr(void *head, int x, int y, int t);

// How many labels the header of a 3-D module tells of, and the table has room for.
int id_labels_num(void *head);

// Label of a frame; empty for a 2-D module, for an i that has none, and for one outside the label table.
std::string id_get_label(void *head, int i);

// The element (0 for an unknown type) and storing into one: a float or a double as it is, an integer cut
// toward zero, its low 32 bits kept.
double mod_get_element(const std::byte *at, int data_type);
void mod_put_element(std::byte *at, int data_type, double value);

// The title, bounded: it may be without its end. Others may have written it: control characters, which would
// make lines of their own in a reply, are shown as "?".
std::string mod_title(void *head);

} // namespace kestrel
