#include "pulsar3/lib/paths/dummy.h"

namespace kestrel {

namespace {

std::uint64_t key(dummy_space space, std::uint32_t address) {
    return static_cast<std::uint64_t>(space) << 32 | address;
}

} // namespace

void dummy_registers::write(dummy_space space, std::uint32_t address, std::span<const std::uint32_t> values) {
    for (const std::uint32_t value : values) {
        if (value == 0)
            words_.erase(key(space, address)); // what reads as 0 takes no memory
        else
            words_[key(space, address)] = value;
        ++address;
    }
}

void dummy_registers::read(dummy_space space, std::uint32_t address, std::span<std::uint32_t> values) const {
    for (std::uint32_t &value : values) {
        const auto found = words_.find(key(space, address++));
        value = found == words_.end() ? 0 : found->second;
    }
}

} // namespace kestrel
