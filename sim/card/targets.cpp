#include "sim/card/targets.h"

#include "sim/card/boards.h"
#include "sim/card/card.h"
#include "sim/card/timing.h"

#include <algorithm>

namespace kestrel {

namespace {

struct target_rule {
    bool word_addressed; // an item a number, whatever its width
    std::uint64_t words; // 0: none of its own
    bool writable = true;
};

// In the order of card_target.
constexpr target_rule rules[card_targets] = {
    {false, 1u << 24},  // channel registers
    {false, 1u << 21},  // local bus
    {true, 256},        // data link
    {false, 1u << 30},  // card memory
    {false, 1u << 30},  // playback memory
    {false, 0},         // I2C
    {true, 0x2000},     // SPI of card and mid-plane
    {true, 0x1000},     // SPI of channels
    {true, 256},        // fan
    {true, 4096},       // configuration store
    {true, 128, false}, // FPGA monitor
    {true, 1},          // readout mode
    {false, 1u << 16},  // DMA or clock block
    {false, 1u << 20},  // transceivers
    {false, 1u << 30},  // raw registers
    {true, 1u << 16},   // EEPROM
};

const target_rule &rule_of(card_target t) {
    return rules[static_cast<std::size_t>(t)];
}

// True when every item of the run lies in the target and on its own boundary.
bool fits(const card_run &run, std::size_t items) {
    const target_rule &rule = rule_of(run.target);
    if (rule.word_addressed)
        return run.address + static_cast<std::uint64_t>(items) <= rule.words;
    return run.address % run.width == 0 &&
           run.address + static_cast<std::uint64_t>(items) * run.width <= 4 * rule.words;
}

std::uint32_t item_mask(std::uint32_t width) {
    return width == 4 ? 0xffffffff : (1u << 8 * width) - 1;
}

// I2C: bytes only. A plain write sets the register pointer with its first byte, a plain read begins at it.
bool i2c_access(card &c, const card_run &run, std::span<std::uint32_t> items, bool write) {
    const auto device = c.i2c.find(run.address & 0xff);
    if (run.width != 1 || (run.address & ~0x1ffffu) != 0 || device == c.i2c.end())
        return false;
    const bool with_register = run.address & card_i2c_with_register;
    std::uint8_t &pointer = c.i2c_pointer[device->first];
    if (with_register)
        pointer = static_cast<std::uint8_t>(run.address >> 8);
    bool first = true;
    for (std::uint32_t &item : items) {
        if (!write)
            item = device->second[pointer++];
        else if (first && !with_register)
            pointer = static_cast<std::uint8_t>(item);
        else
            device->second[pointer++] = static_cast<std::uint8_t>(item);
        first = false;
    }
    return true;
}

// Registers of channels that the card does not have take nothing (globals may lie behind them).
bool swallowed(const card &c, const card_run &run) {
    const auto chan = static_cast<int>(run.address >> 22);
    return run.target == card_target::registers && chan >= c.channels && chan != 15;
}

// Items narrower than a word, within the words that they lie in.
void write_part(sparse_words &words, const card_run &run, std::uint32_t address, std::uint32_t item) {
    const std::uint32_t shift = 8 * (address & 3), mask = item_mask(run.width) << shift;
    const std::uint32_t word = address >> 2;
    words.set(word, (words.get(word) & ~mask) | (item << shift & mask));
}

// What the card puts back of its own, and what follows from a write.
void after_write(card &c, const card_run &run, std::size_t items) {
    const std::uint32_t first = run.address / 4;
    const auto last = static_cast<std::uint32_t>(first + items);
    const auto is_first_region = [](std::uint32_t word) { return (word >> 16 & 15) == 0; };
    if (run.target == card_target::registers && (is_first_region(first) || is_first_region(last)))
        card_put_constants(c);
    if (run.target == (c.kind->local_globals ? card_target::local : card_target::registers) &&
        (c.kind->local_globals || last >= global_block))
        timing_registers_written(c);
    if (run.target == card_target::rdma)
        timing_link_written(c, run.address, items);
    boards_written(c, run.target, run.address, items);
}

} // namespace

bool card_read(card &c, card_run run, std::span<std::uint32_t> items) {
    if (run.target == card_target::i2c)
        return i2c_access(c, run, items, false);
    if (!fits(run, items.size()))
        return false;
    const sparse_words &words = c.words(run.target);
    if (rule_of(run.target).word_addressed) {
        words.read(run.address, items);
        for (std::uint32_t &item : items)
            item &= item_mask(run.width);
    } else if (run.width == 4) {
        words.read(run.address / 4, items);
    } else {
        for (std::uint32_t address = run.address; std::uint32_t & item : items) {
            item = words.get(address >> 2) >> 8 * (address & 3) & item_mask(run.width);
            address += run.width;
        }
    }
    return true;
}

bool card_write(card &c, card_run run, std::span<const std::uint32_t> items) {
    if (run.target == card_target::i2c) {
        std::vector<std::uint32_t> copy(items.begin(), items.end());
        if (!i2c_access(c, run, copy, true))
            return false;
        boards_written(c, run.target, run.address, items.size());
        return true;
    }
    const target_rule &rule = rule_of(run.target);
    if (!rule.writable || !fits(run, items.size()))
        return false;
    if (swallowed(c, run))
        return true;
    sparse_words &words = c.words(run.target);
    if (rule.word_addressed || run.width == 4) {
        words.write(rule.word_addressed ? run.address : run.address / 4, items);
    } else {
        for (std::uint32_t address = run.address; const std::uint32_t item : items) {
            write_part(words, run, address, item);
            address += run.width;
        }
    }
    after_write(c, run, items.size());
    return true;
}

bool card_zero(card &c, card_run run, std::uint32_t items) {
    run.width = 4;
    const target_rule &rule = rule_of(run.target);
    if (run.target == card_target::i2c || !rule.writable || !fits(run, items))
        return false;
    c.words(run.target).zero(rule.word_addressed ? run.address : run.address / 4, items);
    after_write(c, run, items);
    return true;
}

} // namespace kestrel
