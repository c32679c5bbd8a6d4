// A text file of numbers: whatever it holds, what comes out is a full table or an error.
#include "files/ascii_file.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0)
        return 0;
    const bool id_row = (data[0] & 1) != 0;
    const std::size_t block = 1 + data[0] / 2U; // the cut into blocks is part of the input
    std::size_t at = 1;
    kestrel::ascii_table table;
    std::string error;
    const bool good = kestrel::read_ascii(
        [&](std::span<char> to) {
            const std::size_t n = std::min({block, to.size(), size - at});
            std::memcpy(to.data(), data + at, n);
            at += n;
            return static_cast<long>(n);
        },
        id_row, table, error);
    const std::size_t values = static_cast<std::size_t>(table.nx) * static_cast<std::size_t>(table.ny);
    if (good ? table.nx < 1 || table.ny < 1 || table.values.size() != values : error.empty())
        std::abort();
    return 0;
}
