// modules/store: a module for those who only look, read with pread from its object: another process that cuts it short
// costs a short read, never a fatal signal, and nothing can be changed. Any thread.
#pragma once

#include "modules/store/kestrel_module.h"
#include "support/fd.h"

#include <cstddef>
#include <string_view>
#include <sys/types.h>

namespace kestrel {

inline constexpr const char *mod_folder = "/dev/shm"; // where Linux keeps the objects

// A module that is open for reading; the shape is that of this moment.
struct open_module {
    unique_fd fd;
    kestrel_module shape{};

    explicit operator bool() const { return static_cast<bool>(fd); }
    // Reads `bytes` from element (x, y, t) on; false when the object ends before, or the element is outside.
    bool read(void *to, std::size_t bytes, std::size_t x, std::size_t y, std::size_t t) const;
};
// Without a descriptor when there is no such module, or none that can be read.
open_module open_for_reading(std::string_view name);

} // namespace kestrel
