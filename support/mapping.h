// support: an owned memory mapping. Uses the system only.
#pragma once

#include <cstddef>
#include <sys/mman.h>
#include <utility>

namespace kestrel {

// Unmaps what it holds when it goes; moves, never copies. A null address means it holds nothing. The mapping
// outlives the descriptor that it was made from.
class unique_mapping {
  public:
    unique_mapping() = default;
    // Maps `size` bytes of the descriptor from its start; empty on failure, with errno set.
    static unique_mapping map(int fd, std::size_t size, int protection, int flags) {
        void *address = ::mmap(nullptr, size, protection, flags, fd, 0);
        return address == MAP_FAILED ? unique_mapping() : unique_mapping(address, size);
    }
    unique_mapping(unique_mapping &&other) noexcept
        : address_(std::exchange(other.address_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    unique_mapping &operator=(unique_mapping &&other) noexcept {
        if (this != &other) {
            reset();
            address_ = std::exchange(other.address_, nullptr);
            size_ = std::exchange(other.size_, 0);
        }
        return *this;
    }
    unique_mapping(const unique_mapping &) = delete;
    unique_mapping &operator=(const unique_mapping &) = delete;
    ~unique_mapping() { reset(); }

    void *address() const { return address_; }
    std::size_t size() const { return size_; }
    explicit operator bool() const { return address_ != nullptr; }
    // The caller unmaps.
    void *release() {
        size_ = 0;
        return std::exchange(address_, nullptr);
    }
    void reset() {
        if (address_ != nullptr)
            ::munmap(address_, size_);
        address_ = nullptr;
        size_ = 0;
    }

  private:
    unique_mapping(void *address, std::size_t size) : address_(address), size_(size) {}

    void *address_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace kestrel
