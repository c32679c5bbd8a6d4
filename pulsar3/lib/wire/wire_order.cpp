#include "pulsar3/lib/wire/wire_order.h"

#include <cstring>

namespace kestrel {

namespace {

template <class T> void swap_items(std::span<const std::byte> items, std::byte *to) {
    for (std::size_t at = 0; at + sizeof(T) <= items.size(); at += sizeof(T)) {
        T value;
        std::memcpy(&value, items.data() + at, sizeof value);
        value = big_endian(value);
        std::memcpy(to + at, &value, sizeof value);
    }
}

#ifdef __x86_64__
// Eight words at a time: a block of 64 KiB otherwise costs a third of what it takes to send it. Returns the bytes done.
__attribute__((target("avx2"))) std::size_t swap_blocks(std::span<const std::byte> items, std::byte *to) {
    using block = std::uint8_t __attribute__((vector_size(32)));
    std::size_t at = 0;
    for (; at + sizeof(block) <= items.size(); at += sizeof(block)) {
        block b;
        std::memcpy(&b, items.data() + at, sizeof b);
        b = __builtin_shufflevector(b, b, 3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12, 19, 18, 17,
                                    16, 23, 22, 21, 20, 27, 26, 25, 24, 31, 30, 29, 28);
        std::memcpy(to + at, &b, sizeof b);
    }
    return at;
}

std::size_t swap_long_blocks(std::span<const std::byte> items, std::byte *to) {
    return __builtin_cpu_supports("avx2") ? swap_blocks(items, to) : 0;
}
#else
std::size_t swap_long_blocks(std::span<const std::byte>, std::byte *) {
    return 0;
}
#endif

} // namespace

void to_wire_order(std::span<const std::byte> items, std::byte *to, protocol_data_width width) {
    if (width == WIDTH_LONG) {
        const std::size_t done = swap_long_blocks(items, to);
        swap_items<std::uint32_t>(items.subspan(done), to + done);
    } else if (width == WIDTH_WORD) {
        swap_items<std::uint16_t>(items, to);
    } else if (items.data() != to && !items.empty()) {
        std::memcpy(to, items.data(), items.size());
    }
}

} // namespace kestrel
