// pulsar3/lib/saved: bytes of files to values and back, for the files of this folder.
#pragma once

#include "pulsar3/lib/saved/items.h"

#include <cstring>
#include <type_traits>

namespace kestrel {

template <class T> T saved_value(std::span<const std::byte> bytes, std::size_t at = 0) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value{};
    std::memcpy(&value, bytes.subspan(at, sizeof value).data(), sizeof value);
    return value;
}

template <class T> void save_value(std::span<std::byte> bytes, const T &value, std::size_t at = 0) {
    static_assert(std::is_trivially_copyable_v<T>);
    std::memcpy(bytes.subspan(at, sizeof value).data(), &value, sizeof value);
}

inline std::vector<std::uint32_t> saved_words(std::span<const std::byte> bytes) {
    std::vector<std::uint32_t> words(bytes.size() / sizeof(std::uint32_t));
    std::memcpy(words.data(), bytes.data(), words.size() * sizeof(std::uint32_t));
    return words;
}

inline void save_words(std::span<std::byte> bytes, std::span<const std::uint32_t> words) {
    std::memcpy(bytes.data(), words.data(), words.size_bytes());
}

} // namespace kestrel
