#include "support/base64.h"

#include <algorithm>

namespace kestrel {

namespace {

constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

std::string base64_encode(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t have = std::min<std::size_t>(3, bytes.size() - i);
        std::uint32_t group = 0;
        for (std::size_t k = 0; k < 3; ++k)
            group = group << 8 | (k < have ? bytes[i + k] : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            text += k <= have ? alphabet[group >> (18 - 6 * k) & 63] : '=';
    }
    return text;
}

std::optional<std::vector<std::uint8_t>> base64_decode(std::string_view text) {
    if (text.size() % 4 != 0)
        return std::nullopt;
    std::size_t padding = 0;
    while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=')
        ++padding;
    std::vector<std::uint8_t> bytes;
    bytes.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool pad = i >= text.size() - padding;
        const std::size_t digit = pad ? 0 : alphabet.find(text[i]);
        if (digit == std::string_view::npos)
            return std::nullopt;
        group = group << 6 | static_cast<std::uint32_t>(digit);
        if (i % 4 != 3)
            continue;
        for (int shift = 16; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::uint8_t>(group >> shift));
        group = 0;
    }
    for (; padding > 0; --padding)
        bytes.pop_back();
    return bytes;
}

} // namespace kestrel
