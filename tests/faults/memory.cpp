// tests: operator new that fails once, at the allocation that the test has chosen.
#include "tests/faults/control.h"

#include <cstdlib>
#include <new>

namespace {

bool this_one_fails() {
    auto &control = kestrel::faults::shared();
    if (control.allocations_left.load(std::memory_order_relaxed) <= 0)
        return false;
    if (control.allocations_left.fetch_sub(1) != 1)
        return false;
    ++control.failures;
    return true;
}

void *allocate(std::size_t size) {
    return this_one_fails() ? nullptr : std::malloc(size ? size : 1);
}

void *or_throw(void *place) {
    if (!place)
        throw std::bad_alloc();
    return place;
}

} // namespace

void *operator new(std::size_t size) {
    return or_throw(allocate(size));
}
void *operator new[](std::size_t size) {
    return or_throw(allocate(size));
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
    return allocate(size);
}
void operator delete(void *place) noexcept {
    std::free(place);
}
void operator delete[](void *place) noexcept {
    std::free(place);
}
void operator delete(void *place, std::size_t) noexcept {
    std::free(place);
}
void operator delete[](void *place, std::size_t) noexcept {
    std::free(place);
}
