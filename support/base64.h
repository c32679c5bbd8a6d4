// support: Base64 with the standard alphabet. Uses nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// The encoded text, padded with '=', without line breaks.
std::string base64_encode(std::span<const std::uint8_t> bytes);

// The bytes of a padded text; nothing when it holds any other character or has a wrong length.
std::optional<std::vector<std::uint8_t>> base64_decode(std::string_view text);

} // namespace kestrel
