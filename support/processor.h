// support: what this processor can do, for loops that come in several versions.
#pragma once

namespace kestrel {

#ifdef __x86_64__
inline bool processor_has_avx2() {
    return __builtin_cpu_supports("avx2");
}

// The parts of it that the loops are compiled for.
inline bool processor_has_avx512() {
    return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
           __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
}
#endif

} // namespace kestrel
