// sim/card: the generator behind all that is random. One is made for each frame of each channel from the seed and
// their numbers, so that counts depend on nothing else.
#pragma once

#include <bit>
#include <cstdint>
#include <initializer_list>

namespace kestrel {

class card_random { // xoshiro256++, seeded by splitmix64
  public:
    using result_type = std::uint64_t;

    card_random(std::initializer_list<std::uint64_t> numbers) {
        std::uint64_t state = 0;
        for (const std::uint64_t n : numbers)
            state = mix(state ^ mix(n));
        for (std::uint64_t &word : s_)
            word = mix(state++);
    }

    static constexpr result_type min() { return 0; }
    static constexpr result_type max() { return ~std::uint64_t{0}; }
    result_type operator()() {
        const std::uint64_t result = std::rotl(s_[0] + s_[3], 23) + s_[0], t = s_[1] << 17;
        s_[2] ^= s_[0];
        s_[3] ^= s_[1];
        s_[1] ^= s_[2];
        s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = std::rotl(s_[3], 45);
        return result;
    }
    // In [0, 1).
    double real() { return static_cast<double>((*this)() >> 11) * 0x1p-53; }

  private:
    static std::uint64_t mix(std::uint64_t z) {
        z += 0x9e3779b97f4a7c15;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }

    std::uint64_t s_[4];
};

} // namespace kestrel
