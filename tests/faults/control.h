// tests: what a test tells the server with faults, through a file that both map (KESTREL_FAULTS names it).
#pragma once

#include <atomic>
#include <cstdint>

namespace kestrel::faults {

struct control {
    std::atomic<std::int64_t>
        allocations_left;                 // the allocation that counts this down to 0 fails; 0: none does
    std::atomic<std::int64_t> failures;   // how many have failed
    std::atomic<std::uint64_t> seed;      // of interrupted and short system calls; 0: none
    std::atomic<std::uint64_t> disturbed; // how many calls were
};
static_assert(sizeof(control) == 32 && std::atomic<std::int64_t>::is_always_lock_free);

// The mapped file; without one a record of zeros, but for the seed of KESTREL_SEED. Needs no memory.
control &shared();

} // namespace kestrel::faults
