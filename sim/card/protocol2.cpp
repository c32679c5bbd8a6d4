// sim/card: generation 2 of the protocol: a 36-byte header, little-endian, and the data as it lies in memory.
//
//   0 magic, 4 sequence, 8 command, 9 bus, 10 width, 11 state, 12 address, 16 items, 20 payload bytes, 24 extras
//
// Embedded writes, read-modify-write and the questions to the DMA engine have up to 16 bytes of data from byte 20 on.
// The answer is the header again with its own state and size, then what was read.
#include "sim/card/card.h"
#include "sim/card/personality.h"
#include "sim/card/protocol.h"

#include <bit>
#include <cstring>

namespace kestrel {

static_assert(std::endian::native == std::endian::little, "words are copied between the wire and memory");

namespace {

constexpr std::size_t header_bytes = 36;
constexpr std::size_t data_at = 20; // of what is embedded in the header
constexpr std::size_t embedded_bytes = 16;

enum : std::uint8_t {
    cmd_read = 1,
    cmd_write,
    cmd_write_embedded,
    cmd_modify,
    cmd_personality_read,
    cmd_personality_write,
    cmd_personality_write_embedded,
    cmd_zero,
};

struct request2 {
    std::uint32_t sequence;
    std::uint8_t command, bus, width;
    std::uint32_t address, items, size;
    std::span<const std::uint8_t> data; // behind the header or in it
};

std::uint32_t word_at(std::span<const std::uint8_t> bytes, std::size_t at) {
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

bool has_data_behind(std::uint8_t command) {
    return command == cmd_write || command == cmd_personality_write;
}

struct bus_rule {
    std::uint8_t bus;
    card_target target;
};
constexpr bus_rule buses[] = {
    {0, card_target::local},     {1, card_target::registers},     {2, card_target::rdma},
    {3, card_target::dma_block}, {4, card_target::dram},          {5, card_target::dram},
    {6, card_target::memory},    {7, card_target::mgt_drp},       {15, card_target::raw},
    {16, card_target::eeprom},   {17, card_target::i2c},          {18, card_target::spi},
    {19, card_target::fan},      {20, card_target::config},       {22, card_target::chan_spi},
    {23, card_target::xadc},     {24, card_target::readout_mode}, {100, card_target::memory},
};
constexpr std::uint8_t bus_local = 0, bus_mini_memory = 6, bus_readout_mode = 24;

// Which address space a bus means, if this card has it.
std::optional<card_run> route(const card &c, const request2 &r) {
    if (r.bus == bus_local && !c.kind->local_globals)
        return std::nullopt;
    if ((r.bus == bus_mini_memory || r.bus == bus_readout_mode) && !c.kind->mini)
        return std::nullopt;
    for (const bus_rule &rule : buses) {
        if (rule.bus == r.bus)
            return card_run{rule.target, protocol_width(r.width), r.address};
    }
    return std::nullopt;
}

void put_header(const request2 &r, std::uint8_t state, std::size_t payload, std::vector<std::uint8_t> &out) {
    const std::uint32_t fields[] = {
        protocol_magic,
        r.sequence,
        static_cast<std::uint32_t>(r.command | r.bus << 8 | r.width << 16) | static_cast<std::uint32_t>(state)
                                                                                 << 24,
        r.address,
        r.items,
        static_cast<std::uint32_t>(payload),
        0,
        0,
        0,
    };
    static_assert(sizeof fields == header_bytes);
    out.resize(header_bytes + payload);
    std::memcpy(out.data(), fields, header_bytes);
}

void acknowledge(const request2 &r, std::span<const std::uint32_t> data, std::uint32_t width,
                 card_answer &answer) {
    put_header(r, state_acknowledged, data.size() * width, answer.bytes);
    std::uint8_t *out = answer.bytes.data() + header_bytes;
    if (width == 4 && !data.empty())
        std::memcpy(out, data.data(), data.size_bytes());
    else
        for (const std::uint32_t item : data) {
            std::memcpy(out, &item, width);
            out += width;
        }
}

std::vector<std::uint32_t> items_of(std::span<const std::uint8_t> data, std::size_t count,
                                    std::uint32_t width) {
    std::vector<std::uint32_t> items(count);
    if (width == 4 && count > 0)
        std::memcpy(items.data(), data.data(), 4 * count);
    for (std::size_t i = 0; width != 4 && i < count; ++i)
        std::memcpy(&items[i], data.data() + i * width, width);
    return items;
}

bool do_read(card &c, const request2 &r, const card_run &run, card_answer &answer) {
    const std::uint64_t bytes = static_cast<std::uint64_t>(r.items) * run.width;
    if (bytes > largest_payload || bytes != r.size)
        return false;
    std::vector<std::uint32_t> items(r.items);
    if (!card_read(c, run, items))
        return false;
    acknowledge(r, items, run.width, answer);
    return true;
}

bool do_write(card &c, const request2 &r, const card_run &run, card_answer &answer) {
    const std::uint64_t bytes = static_cast<std::uint64_t>(r.items) * run.width;
    const bool fits = r.command == cmd_write ? bytes == r.data.size() : bytes <= embedded_bytes;
    if (!fits || !card_write(c, run, items_of(r.data, r.items, run.width)))
        return false;
    acknowledge(r, {}, run.width, answer);
    return true;
}

bool do_modify(card &c, const request2 &r, const card_run &run, card_answer &answer) {
    std::uint32_t word = 0;
    if (run.width != 4 || r.items != 1 || !card_read(c, run, {&word, 1}))
        return false;
    word = (word & word_at(r.data, 0)) | word_at(r.data, 4);
    if (!card_write(c, run, {&word, 1}))
        return false;
    acknowledge(r, {&word, 1}, 4, answer);
    return true;
}

bool do_access(card &c, const request2 &r, card_answer &answer) {
    const std::optional<card_run> run = route(c, r);
    if (!run || run->width == 0)
        return false;
    switch (r.command) {
    case cmd_read:
        return do_read(c, r, *run, answer);
    case cmd_write:
    case cmd_write_embedded:
        return do_write(c, r, *run, answer);
    case cmd_modify:
        return do_modify(c, r, *run, answer);
    case cmd_zero:
        if (!card_zero(c, *run, r.items))
            return false;
        acknowledge(r, {}, 4, answer);
        return true;
    default:
        return false;
    }
}

bool do_question(card &c, const request2 &r, card_answer &answer) {
    const std::vector<std::uint32_t> words = items_of(r.data, embedded_bytes / 4, 4);
    const std::vector<std::uint32_t> said =
        personality_question(c, r.address, words[0], std::span(words).subspan(1));
    if (said.empty() || said.size() != r.items)
        return false;
    acknowledge(r, said, 4, answer);
    return true;
}

bool do_order(card &c, const request2 &r, card_answer &answer) {
    const std::uint64_t bytes = static_cast<std::uint64_t>(r.items) * 4;
    const bool fits = r.command == cmd_personality_write ? bytes == r.data.size() : bytes <= embedded_bytes;
    if (!fits || r.items == 0 || personality_is_question(r.address))
        return false;
    const std::vector<std::uint32_t> words = items_of(r.data, r.items, 4);
    if (!personality_order(c, r.address, words[0], std::span(words).subspan(1)))
        return false;
    acknowledge(r, {}, 4, answer);
    return true;
}

bool carry_out(card &c, const request2 &r, card_answer &answer) {
    switch (r.command) {
    case cmd_personality_read:
        return do_question(c, r, answer);
    case cmd_personality_write:
    case cmd_personality_write_embedded:
        return do_order(c, r, answer);
    default:
        return do_access(c, r, answer);
    }
}

// What a command brings first: the first item of a write, a mask; 0 for one that brings nothing.
std::uint32_t first_of(const request2 &r) {
    const bool nothing = r.command == cmd_read || r.command == cmd_zero || r.data.size() < 4;
    return nothing ? 0 : word_at(r.data, 0);
}

// What follows the header.
std::size_t bytes_behind(std::span<const std::uint8_t> in) {
    return has_data_behind(in[8]) ? word_at(in, 20) : 0;
}

std::optional<std::uint8_t> whole(std::span<const std::uint8_t> in) {
    if (in.size() < header_bytes || in.size() - header_bytes < bytes_behind(in))
        return std::nullopt;
    return in[9];
}

taken_request take(card &c, std::span<const std::uint8_t> in, bool refuse, card_answer &answer) {
    if (in.size() < header_bytes)
        return {};
    const std::uint8_t command = in[8];
    const std::size_t behind = bytes_behind(in);
    if (word_at(in, 0) != protocol_magic || behind > largest_payload)
        return {take_result::malformed, 0};
    if (in.size() < header_bytes + behind)
        return {};
    const request2 r = {word_at(in, 4),
                        command,
                        in[9],
                        in[10],
                        word_at(in, 12),
                        word_at(in, 16),
                        word_at(in, 20),
                        has_data_behind(command) ? in.subspan(header_bytes, behind)
                                                 : in.subspan(data_at, embedded_bytes)};
    const bool done = !refuse && carry_out(c, r, answer);
    if (!done) {
        put_header(r, state_refused, 0, answer.bytes);
        answer.refused = true;
    }
    c.seen.push_back({r.command, r.bus, r.width, in[11], r.address, r.items, first_of(r), r.sequence, !done});
    return {take_result::taken, header_bytes + behind};
}

} // namespace

const wire_protocol protocol2 = {{0, 4, 8, 11, 20, 16, false}, whole, take};

} // namespace kestrel
