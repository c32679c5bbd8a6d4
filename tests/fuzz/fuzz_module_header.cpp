// A module whose header another process has overwritten: every operation stays inside the mapping.
#include "modules/store/headed.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

using namespace kestrel;

namespace {

constexpr std::size_t object_size = 4096; // whole pages: one byte past the end faults

void *fresh_module() {
    const std::string name = "kt_fuzz_" + std::to_string(::getpid());
    void *head = nullptr;
    datamod_record *record = nullptr;
    if (_os_datmod(name.c_str(), object_size, &head, &record) != 0)
        std::abort();
    ::shm_unlink(("/" + name).c_str());
    return head;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static void *head = fresh_module();
    std::memset(head, 0, object_size);
    std::memcpy(head, data, std::min(size, object_size));
    module_view view;
    if (mod_look(head, view) == nullptr && view.elements() > 0) {
        std::byte *last = view.at(view.num_x - 1, view.num_y - 1, view.num_t - 1);
        mod_put_element(last, view.data_type, mod_get_element(last, view.data_type) + 1);
        for (int i = -1; i < 4; ++i)
            id_get_label(head, i);
        const std::string labels[] = {"one", "two"};
        mod_set_labels(head, labels);
        app_mod_resize(-1, head, view.num_x, view.num_y, view.num_t);
    }
    mod_title(head);
    clear_mod(head);
    return 0;
}
