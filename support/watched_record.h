// support: a record that one thread writes and any thread copies. The writer never waits, and needs no locked operation;
// a reader that meets it at work tries again (H.-J. Boehm, Can Seqlocks Get Along With Programming Language Memory
// Models? (2012)).
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kestrel {

template <class T> class watched_record {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    // Writes the first `bytes` of the value; always the same thread.
    void write(const T &value, std::size_t bytes = sizeof(T)) {
        const std::uint64_t before = changes_.load(std::memory_order_relaxed);
        changes_.store(before + 1, std::memory_order_relaxed); // odd: at work
        const char *from = reinterpret_cast<const char *>(&value);
        for (std::size_t i = 0; i * sizeof(word) < bytes; ++i) {
            word w = 0;
            std::memcpy(&w, from + i * sizeof w, sizeof w);
            words_[i].store(w, std::memory_order_release); // who reads it sees the odd number, too
        }
        changes_.store(before + 2, std::memory_order_release);
    }

    // The value as it was written last.
    T read() const {
        std::array<word, words> copy;
        for (;;) {
            const std::uint64_t before = changes_.load(std::memory_order_acquire);
            for (std::size_t i = 0; i < words; ++i)
                copy[i] = words_[i].load(std::memory_order_acquire);
            if (before % 2 == 0 && changes_.load(std::memory_order_relaxed) == before)
                break;
        }
        return std::bit_cast<T>(copy);
    }

  private:
    using word = std::uint64_t;
    static constexpr std::size_t words = sizeof(T) / sizeof(word);
    static_assert(sizeof(T) % sizeof(word) == 0);

    std::atomic<std::uint64_t> changes_{0};
    std::array<std::atomic<word>, words> words_{};
};

} // namespace kestrel
