#include "support/crc32c.h"

#include <array>
#include <cstring>
#if defined(__x86_64__)
#include <nmmintrin.h>
#endif

namespace kestrel {

namespace {

constexpr std::uint32_t polynomial = 0x82F63B78; // reflected

// table[k][b]: byte b followed by k zero bytes.
constexpr auto table = [] {
    std::array<std::array<std::uint32_t, 256>, 8> t{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? polynomial : 0);
        t[0][byte] = crc;
    }
    for (std::size_t k = 1; k < t.size(); ++k)
        for (std::size_t byte = 0; byte < 256; ++byte)
            t[k][byte] = (t[k - 1][byte] >> 8) ^ t[0][t[k - 1][byte] & 0xFF];
    return t;
}();

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) std::uint32_t by_instruction(std::span<const std::byte> bytes,
                                                               std::uint32_t before) {
    std::uint64_t crc = ~before;
    std::size_t at = 0;
    for (; at + 8 <= bytes.size(); at += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes.data() + at, 8);
        crc = _mm_crc32_u64(crc, word);
    }
    auto rest = static_cast<std::uint32_t>(crc);
    for (; at < bytes.size(); ++at)
        rest = _mm_crc32_u8(rest, static_cast<unsigned char>(bytes[at]));
    return ~rest;
}
#endif

} // namespace

std::uint32_t crc32c_by_table(std::span<const std::byte> bytes, std::uint32_t before) {
    std::uint32_t crc = ~before;
    std::size_t at = 0;
    for (; at + 8 <= bytes.size(); at += 8) {
        std::uint32_t next = 0;
        for (std::size_t i = 0; i < 8; ++i) {
            const auto byte = static_cast<std::uint32_t>(bytes[at + i]);
            next ^= table[7 - i][i < 4 ? (byte ^ (crc >> (8 * i))) & 0xFF : byte];
        }
        crc = next;
    }
    for (; at < bytes.size(); ++at)
        crc = (crc >> 8) ^ table[0][(crc ^ static_cast<std::uint32_t>(bytes[at])) & 0xFF];
    return ~crc;
}

std::uint32_t crc32c(std::span<const std::byte> bytes, std::uint32_t before) {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("sse4.2"))
        return by_instruction(bytes, before);
#endif
    return crc32c_by_table(bytes, before);
}

} // namespace kestrel
