// maths: the loops of maths/loops.h. The three files loops_*.cpp include this, each compiled for another kind of
// processor. All of it has internal linkage and uses no inline function of anybody else: the linker keeps one copy
// of such a function for all files, which could then be one that this processor cannot run.
#pragma once

#include "maths/loops.h"

#include <cstddef>
#include <cstdint>

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace kestrel {

namespace {

constexpr std::size_t lanes = 16;
constexpr std::size_t line_bytes = 64; // of the cache

// The processor fetches ahead by itself, but only within a page of memory: this asks for the next one, for
// sixteen elements. An address outside the data does no harm, it is not fetched.
template <class T> void fetch_ahead(const T *at) {
    constexpr std::uintptr_t distance = 4096;
    for (std::size_t line = 0; line < lanes * sizeof(T); line += line_bytes)
        __builtin_prefetch(
            reinterpret_cast<const void *>(reinterpret_cast<std::uintptr_t>(at) + distance + line));
}

// Sixteen elements to an address at the start of a line of the cache.
template <class T> void store_past_cache(const T *from, T *to) {
    static_assert(sizeof(T) * lanes == line_bytes);
#if defined(__AVX512F__)
    _mm512_stream_si512(reinterpret_cast<__m512i *>(to), _mm512_load_si512(from));
#elif defined(__AVX__)
    for (std::size_t k = 0; k < lanes; k += 8)
        _mm256_stream_si256(reinterpret_cast<__m256i *>(to + k),
                            _mm256_load_si256(reinterpret_cast<const __m256i *>(from + k)));
#elif defined(__SSE2__)
    for (std::size_t k = 0; k < lanes; k += 4)
        _mm_stream_si128(reinterpret_cast<__m128i *>(to + k),
                         _mm_load_si128(reinterpret_cast<const __m128i *>(from + k)));
#else
    for (std::size_t k = 0; k < lanes; ++k)
        to[k] = from[k];
#endif
}

// Stores `count` results: sixteen(i, to) makes those from i on, one(i) a single one.
template <class T, class Sixteen, class One>
void store_each(T *__restrict out, std::size_t count, bool past_cache, Sixteen sixteen, One one) {
    std::size_t i = 0;
    if (past_cache) {
        for (; i < count && reinterpret_cast<std::uintptr_t>(out + i) % line_bytes != 0; ++i)
            out[i] = one(i);
        for (; i + lanes <= count; i += lanes) {
            alignas(line_bytes) T line[lanes];
            sixteen(i, line);
            store_past_cache(line, out + i);
        }
    }
    for (; i + lanes <= count; i += lanes)
        sixteen(i, out + i);
    for (; i < count; ++i)
        out[i] = one(i);
}

// ---- sums

template <class T, class S> void totals(const T *const *rows, std::size_t count, S *sums) {
    S part[4][lanes] = {};
    const std::size_t whole = count - count % lanes;
    for (std::size_t i = 0; i < whole; i += lanes)
        for (std::size_t r = 0; r < 4; ++r) {
            const T *from = rows[r] + i;
            fetch_ahead(from);
            for (std::size_t k = 0; k < lanes; ++k)
                part[r][k] += from[k];
        }
    for (std::size_t r = 0; r < 4; ++r) {
        sums[r] = S{};
        for (std::size_t k = 0; k < lanes; ++k)
            sums[r] += part[r][k];
        for (std::size_t i = whole; i < count; ++i)
            sums[r] += rows[r][i];
    }
}

template <class T, class S> void add(const T *const *rows, std::size_t count, S *__restrict sums) {
    const T *__restrict a = rows[0], *__restrict b = rows[1], *__restrict c = rows[2],
                        *__restrict d = rows[3];
    const auto one = [&](std::size_t i) { sums[i] = sums[i] + a[i] + b[i] + c[i] + d[i]; };
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        for (std::size_t r = 0; r < 4; ++r)
            fetch_ahead(rows[r] + i);
        for (std::size_t k = 0; k < lanes; ++k)
            one(i + k);
    }
    for (; i < count; ++i)
        one(i);
}

// ---- moments

template <class T> void moments(const T *const *rows, std::size_t count, double first, moment *of) {
    double f[4][lanes] = {}, fc[4][lanes] = {};
    const std::size_t whole = count - count % lanes;
    for (std::size_t i = 0; i < whole; i += lanes) {
        const double base = first + static_cast<double>(i);
        for (std::size_t r = 0; r < 4; ++r) {
            const T *from = rows[r] + i;
            fetch_ahead(from);
            for (std::size_t k = 0; k < lanes; ++k) {
                const double value = from[k];
                f[r][k] += value;
                fc[r][k] += value * (base + static_cast<double>(k));
            }
        }
    }
    for (std::size_t r = 0; r < 4; ++r) {
        moment m;
        for (std::size_t k = 0; k < lanes; ++k) {
            m.f += f[r][k];
            m.fc += fc[r][k];
        }
        for (std::size_t i = whole; i < count; ++i) {
            m.f += rows[r][i];
            m.fc += rows[r][i] * (first + static_cast<double>(i));
        }
        of[r] = m;
    }
}

template <class T>
void add_moments(const T *const *rows, std::size_t count, double first, double *__restrict f,
                 double *__restrict fc) {
    const T *__restrict a = rows[0], *__restrict b = rows[1], *__restrict c = rows[2],
                        *__restrict d = rows[3];
    const auto one = [&](std::size_t i) {
        const double va = a[i], vb = b[i], vc = c[i], vd = d[i];
        f[i] = f[i] + va + vb + vc + vd;
        fc[i] = fc[i] + va * first + vb * (first + 1) + vc * (first + 2) + vd * (first + 3);
    };
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) {
        for (std::size_t r = 0; r < 4; ++r)
            fetch_ahead(rows[r] + i);
        for (std::size_t k = 0; k < lanes; ++k)
            one(i + k);
    }
    for (; i < count; ++i)
        one(i);
}

// ---- bins

// What bins are summed in: what is left of a sum of counts is the same in 32 bits.
template <class T> struct bin_sum { using type = T; };
template <> struct bin_sum<float> { using type = double; };

template <class S, class T> S one_bin(const T *from, std::size_t factor) {
    S sum = from[0];
    for (std::size_t k = 1; k < factor; ++k)
        sum += from[k];
    return sum;
}

template <class T, class S> struct any_factor {
    std::size_t factor;
    void add_sixteen(const T *from, S *sums) const {
        for (std::size_t k = 0; k < lanes; ++k)
            sums[k] += one_bin<S>(from + k * factor, factor);
    }
};

// The same for a usual factor. The elements are sorted first: the vectoriser needs it so.
template <class T, class S, std::size_t Factor> struct fixed_factor {
    static constexpr std::size_t factor = Factor;
    static void add_sixteen(const T *from, S *sums) {
        T sorted[Factor][lanes];
        for (std::size_t k = 0; k < lanes; ++k)
            for (std::size_t f = 0; f < Factor; ++f)
                sorted[f][k] = from[k * Factor + f];
        for (std::size_t k = 0; k < lanes; ++k) {
            S sum = sorted[0][k];
            for (std::size_t f = 1; f < Factor; ++f)
                sum += sorted[f][k];
            sums[k] += sum;
        }
    }
};

template <class T, class S, class By>
void bin_by(const By &by, const T *const *rows, std::size_t number, std::size_t bins, T *out,
            bool past_cache) {
    const auto sixteen = [&](std::size_t j, T *to) {
        S sums[lanes] = {};
        for (std::size_t r = 0; r < number; ++r) {
            const T *from = rows[r] + j * by.factor;
            for (std::size_t k = 0; k < by.factor; ++k)
                fetch_ahead(from + k * lanes);
            by.add_sixteen(from, sums);
        }
        for (std::size_t k = 0; k < lanes; ++k)
            to[k] = static_cast<T>(sums[k]);
    };
    const auto one = [&](std::size_t j) {
        S sum = 0;
        for (std::size_t r = 0; r < number; ++r)
            sum += one_bin<S>(rows[r] + j * by.factor, by.factor);
        return static_cast<T>(sum);
    };
    store_each(out, bins, past_cache, sixteen, one);
}

template <class T>
void bin(const T *const *rows, std::size_t number, std::size_t factor, std::size_t bins, T *out,
         bool past_cache) {
    using S = typename bin_sum<T>::type;
    switch (factor) {
    case 1:
        return bin_by<T, S>(fixed_factor<T, S, 1>(), rows, number, bins, out, past_cache);
    case 2:
        return bin_by<T, S>(fixed_factor<T, S, 2>(), rows, number, bins, out, past_cache);
    case 4:
        return bin_by<T, S>(fixed_factor<T, S, 4>(), rows, number, bins, out, past_cache);
    default:
        return bin_by<T, S>(any_factor<T, S>{factor}, rows, number, bins, out, past_cache);
    }
}

// ---- two rows combined: both operands become float first; every operator and scaling has its own loop

template <class A, class B, class F>
void combine_each(const A *__restrict a, const B *__restrict b, float *__restrict out, std::size_t count,
                  bool past_cache, F f) {
    const auto one = [&](std::size_t i) { return f(static_cast<float>(a[i]), static_cast<float>(b[i])); };
    const auto sixteen = [&](std::size_t i, float *__restrict to) {
        fetch_ahead(a + i);
        fetch_ahead(b + i);
        for (std::size_t k = 0; k < lanes; ++k)
            to[k] = one(i + k);
    };
    store_each(out, count, past_cache, sixteen, one);
}

template <class A, class B>
void combine(const void *from_a, const void *from_b, float *out, std::size_t count, const binary_operation &o,
             bool past_cache) {
    const A *a = static_cast<const A *>(from_a);
    const B *b = static_cast<const B *>(from_b);
    const float s = o.scale, limit = o.threshold;
    const bool scaled = s != 0.0F, limited = limit > 0.0F;
    const auto each = [&](auto f) { combine_each(a, b, out, count, past_cache, f); };
    switch (o.code) {
    case bin_add:
        return scaled ? each([s](float x, float y) { return (x + y) * s; })
                      : each([](float x, float y) { return x + y; });
    case bin_sub:
        return scaled ? each([s](float x, float y) { return (x - y) * s; })
                      : each([](float x, float y) { return x - y; });
    case bin_mult:
        return scaled ? each([s](float x, float y) { return x * y * s; })
                      : each([](float x, float y) { return x * y; });
    case bin_div:
        break;
    }
    if (limited)
        return scaled ? each([s, limit](float x, float y) { return y > limit ? x * s / y : 0.0F; })
                      : each([limit](float x, float y) { return y > limit ? x / y : 0.0F; });
    scaled ? each([s](float x, float y) { return x * s / y; }) : each([](float x, float y) { return x / y; });
}

// ---- the table

template <class T, class S>
constexpr loops_of<T, S> loops_for{totals<T, S>, add<T, S>, moments<T>, add_moments<T>, bin<T>};

constexpr row_loops make_row_loops(const char *name) {
    using u32 = std::uint32_t;
    return {name,
            loops_for<float, double>,
            loops_for<u32, std::uint64_t>,
            totals<double, double>,
            {combine<u32, u32>, combine<float, u32>, combine<double, u32>, combine<u32, float>,
             combine<float, float>, combine<double, float>, combine<u32, double>, combine<float, double>,
             combine<double, double>}};
}

} // namespace

} // namespace kestrel
