// pulsar3/lib/wire: transactions of each protocol, below the calls of fem.h. The caller holds the handle's mutex.
// Nothing is sent for no items. All return 0, or a negative status with its text.
#pragma once

#include "pulsar3/lib/wire/fem.h"
#include "pulsar3/lib/wire/protocol.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kestrel {

// Where an access goes on the wire.
struct fem_target {
    std::uint8_t bus;
    protocol_data_width width;
    std::uint32_t address;
    std::uint32_t step;  // what an item adds to the address
    unsigned copies = 1; // a write goes to so many places,
    std::uint32_t copy_step =
        0;                   // so far apart; each gets its status here, where somebody wants them, and then
    int *statuses = nullptr; // one that is refused does not keep the others from being written
};

// Generation 1
int femAccessWrite(FemHandle &h, const fem_target &target, std::span<const std::byte> items);
int femAccessRead(FemHandle &h, const fem_target &target, std::span<std::byte> items);
int femAccessRMW(FemHandle &h, const fem_target &target, std::uint32_t mask, std::uint32_t value,
                 std::uint32_t &result);
int femPersonalityWrite(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words);
int femPersonalityRead(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words,
                       std::span<std::uint32_t> result);

// Generation 2
int plr4AccessWrite(FemHandle &h, const fem_target &target, std::span<const std::byte> items);
int plr4AccessRead(FemHandle &h, const fem_target &target, std::span<std::byte> items);
int plr4AccessRMW(FemHandle &h, const fem_target &target, std::uint32_t mask, std::uint32_t value,
                  std::uint32_t &result);
int plr4AccessZero(FemHandle &h, const fem_target &target, std::uint32_t words);
int plr4PersonalityWrite(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words);
int plr4PersonalityRead(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words,
                        std::span<std::uint32_t> result);

} // namespace kestrel
