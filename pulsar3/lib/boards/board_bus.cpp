#include "pulsar3/lib/boards/board_bus.h"

#include "pulsar3/lib/paths/access.h"

#include <vector>

namespace kestrel {

namespace {

using words_in = std::span<const std::uint32_t>;
using words_out = std::span<std::uint32_t>;

constexpr std::uint32_t word_bytes = 4;

int i2c_write(FemHandle &fem, std::uint32_t address, words_in words) {
    std::vector<std::uint8_t> bytes;
    for (const std::uint32_t word : words)
        bytes.push_back(static_cast<std::uint8_t>(word));
    return pulsar3FemI2CWriteRegAddr(fem, static_cast<int>(address & 255), static_cast<int>(address >> 8),
                                     bytes);
}

int i2c_read(FemHandle &fem, std::uint32_t address, words_out words) {
    std::vector<std::uint8_t> bytes(words.size());
    const int status =
        pulsar3FemI2CReadRegAddr(fem, static_cast<int>(address & 255), static_cast<int>(address >> 8), bytes);
    for (std::size_t i = 0; status == 0 && i < words.size(); ++i)
        words[i] = bytes[i];
    return status;
}

int clock_block_write(FemHandle &fem, std::uint32_t address, words_in words) {
    return pulsar3FemWriteDMAorClk(fem, word_bytes * address, words);
}

int clock_block_read(FemHandle &fem, std::uint32_t address, words_out words) {
    return pulsar3FemReadDMAorClk(fem, word_bytes * address, words);
}

int mgt_write(FemHandle &fem, std::uint32_t address, words_in words) {
    return pulsar3FemSetIntArrayMGTDRP(fem, word_bytes * address, words);
}

int mgt_read(FemHandle &fem, std::uint32_t address, words_out words) {
    return pulsar3FemGetIntArrayMGTDRP(fem, word_bytes * address, words);
}

// In the order of board_bus.
constexpr struct {
    int (*write)(FemHandle &fem, std::uint32_t address, words_in words);
    int (*read)(FemHandle &fem, std::uint32_t address, words_out words);
    dummy_space space;
    std::uint32_t step; // of a dummy's address from one item to the next, as a shift
} buses[] = {
    {pulsar3FemSPIWrite, pulsar3FemSPIRead, dummy_space::card_spi, 0},
    {pulsar3FemChanSPIWrite, pulsar3FemChanSPIRead, dummy_space::channel_spi, 0},
    {i2c_write, i2c_read, dummy_space::i2c, 8},
    {clock_block_write, clock_block_read, dummy_space::clock_block, 0},
    {mgt_write, mgt_read, dummy_space::mgt, 0},
    {pulsar3FemRDMAWrite, pulsar3FemRDMARead, dummy_space::rdma, 0},
};

int told(const char *function, int status) {
    return status == 0 ? 0 : plr3_fail(status, "%s: %s", function, plr3_get_error_message());
}

} // namespace

int plr3_board_write(const char *function, int path, int card, board_bus bus, std::uint32_t address,
                     words_in words) {
    const int leaf_path = plr3_card_path(function, path, card);
    if (leaf_path < 0)
        return leaf_path;
    PLR3Path &leaf = *plr3_path(leaf_path);
    const auto &row = buses[static_cast<std::size_t>(bus)];
    if (leaf.femHandle)
        return told(function, row.write(*leaf.femHandle, address, words));
    for (const std::uint32_t &word : words) {
        leaf.dummy.write(row.space, address, {&word, 1});
        address += 1U << row.step;
    }
    return 0;
}

int plr3_board_read(const char *function, int path, int card, board_bus bus, std::uint32_t address,
                    words_out words) {
    const int leaf_path = plr3_card_path(function, path, card);
    if (leaf_path < 0)
        return leaf_path;
    PLR3Path &leaf = *plr3_path(leaf_path);
    const auto &row = buses[static_cast<std::size_t>(bus)];
    if (leaf.femHandle)
        return told(function, row.read(*leaf.femHandle, address, words));
    for (std::uint32_t &word : words) {
        leaf.dummy.read(row.space, address, {&word, 1});
        address += 1U << row.step;
    }
    return 0;
}

namespace {

// The card of a channel and the address of its device.
int resolve(const char *function, int path, int chan, std::uint32_t device, int &card,
            std::uint32_t &address) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    int card_path = 0, chan_of_card = 0;
    const int status = plr3_resolve_path_chan_card(path, chan, card_path, chan_of_card, card);
    address = static_cast<std::uint32_t>(chan_of_card) << 8 | device;
    return status == 0 ? 0 : plr3_fail(status, "%s: %s", function, plr3_get_error_message());
}

} // namespace

int plr3_write_chan_spi(const char *function, int path, int chan, std::uint32_t device, std::uint32_t word) {
    int card = 0;
    std::uint32_t address = 0;
    const int status = resolve(function, path, chan, device, card, address);
    return status != 0 ? status : plr3_board_set(function, path, card, board_bus::channel_spi, address, word);
}

int plr3_read_chan_spi(const char *function, int path, int chan, std::uint32_t device, std::uint32_t &word) {
    int card = 0;
    std::uint32_t address = 0;
    const int status = resolve(function, path, chan, device, card, address);
    return status != 0 ? status
                       : plr3_board_read(function, path, card, board_bus::channel_spi, address, {&word, 1});
}

} // namespace kestrel
