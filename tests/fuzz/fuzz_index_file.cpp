// The text of an index file: a number from 0 on that writes back as it was read, or nothing.
#include "files/file_index.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const auto number = kestrel::parse_index(text);
    if (number && (*number < 0 || kestrel::parse_index(std::to_string(*number) + "\n") != number))
        std::abort();
    return 0;
}
