#include "maths/share.h"

#include <algorithm>
#include <atomic>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

namespace kestrel {

namespace {

constexpr std::size_t worth_a_thread =
    2 << 20; // bytes; to start a thread takes as long as reading some 100 KiB

struct shared_work {
    void (*call)(const void *, int);
    const void *work;
    const int parts;
    std::atomic<int> next = 0;
    std::atomic<bool> stop = false;
    std::atomic<bool> out_of_memory = false;
};

// False when there is no more to do.
bool do_one(shared_work &shared) {
    const int part = shared.stop ? shared.parts : shared.next.fetch_add(1);
    if (part >= shared.parts)
        return false;
    try {
        shared.call(shared.work, part);
    } catch (const std::bad_alloc &) {
        shared.out_of_memory = shared.stop = true;
    }
    return true;
}

unsigned threads_for(const UMaths &r, int parts) {
    const std::size_t bytes = static_cast<std::size_t>(r.dx) * static_cast<std::size_t>(r.dy) *
                              static_cast<std::size_t>(r.dt) * static_cast<std::size_t>(r.elem_size);
    const unsigned most = std::thread::hardware_concurrency(); // as many as this process may use
    const std::size_t worth = std::min(bytes / worth_a_thread, static_cast<std::size_t>(parts));
    return static_cast<unsigned>(std::clamp<std::size_t>(worth, 1, std::max(most, 1U)));
}

} // namespace

bool umaths_share(int cn, UMaths &r, int parts, void (*call)(const void *, int), const void *work) {
    shared_work shared{call, work, parts};
    {
        std::vector<std::jthread> helpers;
        try {
            for (unsigned n = threads_for(r, parts); n > 1; --n)
                helpers.emplace_back([&shared] {
                    while (do_one(shared)) {
                    }
                });
        } catch (const std::system_error &) { // no more threads can be had: the rest is this one's
        } catch (const std::bad_alloc &) {
        }
        while (do_one(shared)) {
            const long long done = std::min(shared.next.load(), parts);
            if (!r.interrupted && !r.progress.go_on(cn, done, parts))
                r.interrupted = shared.stop = true;
        }
    }
    if (shared.out_of_memory)
        throw std::bad_alloc();
    return !r.interrupted;
}

} // namespace kestrel
