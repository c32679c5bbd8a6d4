// What a browser asks the display for, of a module whose bytes anybody may have written: the answer stays within what was
// asked for, and the module may end anywhere.
#include "display/views.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace kestrel::display;

namespace {

const std::string name = "kt_fuzz_view_" + std::to_string(::getpid());

int fresh_object() {
    const int fd = ::shm_open(("/" + name).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0)
        std::abort();
    std::atexit([] { ::shm_unlink(("/" + name).c_str()); });
    return fd;
}

} // namespace

// The request's numbers, a line's end, the module.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const int fd = fresh_object();
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const std::size_t end = std::min(text.find('\n'), size);
    const std::string_view module = text.substr(std::min(end + 1, size));
    if (::ftruncate(fd, 0) != 0 ||
        ::pwrite(fd, module.data(), module.size(), 0) != static_cast<ssize_t>(module.size()))
        std::abort();
    const std::optional<view_request> request = parse_view(name + " " + std::string(text.substr(0, end)));
    if (!request)
        return 0;
    view_table table;
    const std::shared_ptr<view> seen = table.find(*request);
    table.refresh();
    view_head head;
    std::memcpy(&head, seen->contents->data(), sizeof head);
    const std::size_t elements = std::size_t{head.columns} * head.rows;
    if (seen->contents->size() != sizeof head + elements * head.element_size ||
        head.columns > request->columns || head.rows > request->rows)
        std::abort();
    return 0;
}
