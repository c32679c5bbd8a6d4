// pulsar3/lib/paths: the registers of a card that is not there. A dummy keeps what is written to it.
#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>

namespace kestrel {

enum class dummy_space : std::uint32_t {
    registers,
    local,
    rdma,
    readout_mode,
    fem_config,
    card_spi,
    channel_spi,
    i2c,
    clock_block,
    mgt
};

class dummy_registers {
  public:
    // Words from `address` on, in words; one never written reads as 0.
    void write(dummy_space space, std::uint32_t address, std::span<const std::uint32_t> values);
    void read(dummy_space space, std::uint32_t address, std::span<std::uint32_t> values) const;

  private:
    std::unordered_map<std::uint64_t, std::uint32_t> words_;
};

// The word address of a channel's register.
constexpr std::uint32_t dummy_register(int chan, int region, int offset) {
    return static_cast<std::uint32_t>(chan) << 20 | static_cast<std::uint32_t>(region) << 16 |
           static_cast<std::uint32_t>(offset);
}

} // namespace kestrel
