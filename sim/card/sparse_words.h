// sim/card: the words of one of a card's address spaces, stored only where something was written; the rest is zero.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <unordered_map>

namespace kestrel {

class sparse_words {
  public:
    static constexpr std::uint64_t page_words = 16384;

    std::uint32_t get(std::uint64_t word) const {
        const auto found = pages_.find(word / page_words);
        return found == pages_.end() ? 0 : (*found->second)[word % page_words];
    }
    void set(std::uint64_t word, std::uint32_t value) { page(word / page_words)[word % page_words] = value; }

    void read(std::uint64_t first, std::span<std::uint32_t> out) const {
        walk(first, out.size(), [&](std::uint64_t number, std::size_t at, std::size_t done, std::size_t n) {
            const auto found = pages_.find(number);
            if (found == pages_.end())
                std::fill_n(out.begin() + offset(done), n, 0u);
            else
                std::copy_n(found->second->begin() + at, n, out.begin() + offset(done));
        });
    }
    void write(std::uint64_t first, std::span<const std::uint32_t> in) {
        walk(first, in.size(), [&](std::uint64_t number, std::size_t at, std::size_t done, std::size_t n) {
            std::copy_n(in.begin() + offset(done), n, page(number).begin() + at);
        });
    }
    void zero(std::uint64_t first, std::size_t words) {
        walk(first, words, [&](std::uint64_t number, std::size_t at, std::size_t, std::size_t n) {
            const auto found = pages_.find(number);
            if (found == pages_.end())
                return;
            if (n == page_words)
                pages_.erase(found);
            else
                std::fill_n(found->second->begin() + at, n, 0u);
        });
    }
    void clear() { pages_.clear(); }

  private:
    using page_type = std::array<std::uint32_t, page_words>;

    static std::ptrdiff_t offset(std::size_t n) { return static_cast<std::ptrdiff_t>(n); }

    page_type &page(std::uint64_t number) {
        std::unique_ptr<page_type> &held = pages_[number];
        if (!held)
            held = std::make_unique<page_type>();
        return *held;
    }

    // f(page number, word in the page, words done before, words) for each page that the run touches
    template <class F> static void walk(std::uint64_t first, std::size_t words, F f) {
        for (std::size_t done = 0; done < words;) {
            const auto at = static_cast<std::size_t>(first % page_words);
            const std::size_t n = std::min(words - done, static_cast<std::size_t>(page_words) - at);
            f(first / page_words, at, done, n);
            first += n;
            done += n;
        }
    }

    std::unordered_map<std::uint64_t, std::unique_ptr<page_type>> pages_;
};

} // namespace kestrel
