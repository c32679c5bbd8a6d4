#include "modules/store/read_module.h"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>

namespace kestrel {

bool open_module::read(void *to, std::size_t bytes, std::size_t x, std::size_t y, std::size_t t) const {
    if (!fd || x >= shape.num_x || y >= shape.num_y || t >= shape.num_t)
        return false;
    const std::size_t at = shape.data_offset + ((t * shape.num_y + y) * shape.num_x + x) * shape.element_size;
    return ::pread(fd.get(), to, bytes, static_cast<off_t>(at)) == static_cast<ssize_t>(bytes);
}

open_module open_for_reading(std::string_view name) {
    open_module module;
    if (name.empty() || name.front() == '.' || name.find('/') != name.npos || name.find('\0') != name.npos)
        return module;
    const std::string path = std::string(mod_folder) + "/" + std::string(name);
    unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    struct stat status {};
    if (!fd || ::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return module;
    alignas(mod_header3d) std::array<std::byte, sizeof(mod_header3d)> head{};
    const ssize_t n = ::pread(fd.get(), head.data(), head.size(), 0);
    const auto size = static_cast<std::size_t>(status.st_size);
    // The check looks at no more than the larger header of an object that has room for it.
    if (n < 0 || static_cast<std::size_t>(n) < std::min(size, head.size()) ||
        kestrel_module_look(head.data(), size, &module.shape) != KESTREL_MODULE_OK ||
        module.shape.num_x == 0 || module.shape.num_y == 0 || module.shape.num_t == 0)
        return module;
    module.fd = std::move(fd);
    return module;
}

} // namespace kestrel
