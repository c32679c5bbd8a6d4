// support: CRC-32C (Castagnoli), as iSCSI has it: RFC 3720, B.4. Uses the system only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel {

// The checksum of the bytes; `before` is that of those in front of them.
std::uint32_t crc32c(std::span<const std::byte> bytes, std::uint32_t before = 0);
// The same without the processor's own instruction, for tests to compare.
std::uint32_t crc32c_by_table(std::span<const std::byte> bytes, std::uint32_t before = 0);

} // namespace kestrel
