// Opening any bytes as a detector image file, and reading a corner of what it claims to hold. What is found
// in the HDF5 library itself is not ours to mend: leaks of its failed calls are not looked for, and where it
// asks for as much memory as a broken file says, it is refused as it is by a system that has not got it.
#include "support/tessera.h"

#include <algorithm>
#include <cstdint>
#include <sys/mman.h>
#include <unistd.h>

extern "C" const char *__asan_default_options() {
    return "detect_leaks=0:allocator_may_return_null=1:max_allocation_size_mb=2000";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    static const int fd = ::memfd_create("fuzz", MFD_CLOEXEC);
    static const std::string name = "/proc/self/fd/" + std::to_string(fd);
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        return 0;
    kestrel::tessera_reader reader;
    std::string error;
    if (!reader.open(name, "", error))
        return 0;
    const auto [nx, ny, nt] = reader.shape();
    double corner[8];
    reader.read(corner, 0, 0, 0, std::min(nx, 2), std::min(ny, 2), std::min(nt, 2));
    reader.read(corner, nx - 1, ny - 1, nt - 1, 1, 1, 1);
    return 0;
}
