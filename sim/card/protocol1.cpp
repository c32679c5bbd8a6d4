// sim/card: generation 1 of the protocol: a 16-byte header and everything else big-endian.
//
//   0 magic, 4 command, 5 bus, 6 width, 7 state, 8 address, 12 payload bytes
//
// The answer repeats the header with its own state and size; then the count of items, then what was read.
#include "sim/card/card.h"
#include "sim/card/personality.h"
#include "sim/card/protocol.h"
#include "support/byte_order.h"

#include <cstring>

namespace kestrel {

namespace {

constexpr std::size_t header_bytes = 16;
constexpr std::uint8_t cmd_access = 1, cmd_personality = 4;
constexpr std::uint8_t state_read = 1, state_write = 2, state_modify = 3;
constexpr std::uint32_t register_base = 0xA0000000;
constexpr std::uint32_t dram_base = 0xC0000000;
constexpr std::uint32_t mid_plane_end = 0x2000; // SPI: above it the channels'
constexpr std::size_t read_limit = 1020;        // bytes that an answer can hold
constexpr std::size_t direct_limit = 1024;      // bytes that one write to memory may bring

struct request1 {
    std::uint8_t command, bus, width, state;
    std::uint32_t address;
    std::span<const std::uint8_t> payload;
};

std::uint32_t big(const std::uint8_t *at, std::uint32_t width = 4) {
    std::uint32_t value = 0;
    for (std::uint32_t i = 0; i < width; ++i)
        value = value << 8 | at[i];
    return value;
}

void put_big(std::vector<std::uint8_t> &out, std::uint32_t value, std::uint32_t width = 4) {
    for (std::uint32_t shift = 8 * width; shift > 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> (shift - 8)));
}

// Which address space a bus and an address mean.
std::optional<card_run> route(const request1 &r) {
    const std::uint32_t width = protocol_width(r.width), a = r.address;
    switch (r.bus) {
    case 1:
        return card_run{card_target::eeprom, width, a};
    case 2:
        return card_run{card_target::i2c, width, a};
    case 3:
        return a >= register_base ? card_run{card_target::registers, width, a - register_base}
                                  : card_run{card_target::raw, width, a};
    case 4:
        return card_run{card_target::rdma, width, a};
    case 5:
        return a < mid_plane_end ? card_run{card_target::spi, width, a}
                                 : card_run{card_target::chan_spi, width, a - mid_plane_end};
    case 6:
        return a >= dram_base ? card_run{card_target::dram, width, a - dram_base}
                              : card_run{card_target::memory, width, a};
    case 7:
        return card_run{card_target::fan, width, a};
    case 8:
        return card_run{card_target::config, width, a};
    default:
        return std::nullopt;
    }
}

void put_header(const request1 &r, std::uint8_t state, std::size_t payload, std::vector<std::uint8_t> &out) {
    out.reserve(header_bytes + payload);
    put_big(out, protocol_magic);
    out.insert(out.end(), {r.command, r.bus, r.width, state});
    put_big(out, r.address);
    put_big(out, static_cast<std::uint32_t>(payload));
}

void refuse_it(const request1 &r, card_answer &answer) {
    answer.bytes.clear();
    put_header(r, r.state | state_refused, 4, answer.bytes);
    put_big(answer.bytes, 0);
    answer.refused = true;
}

void acknowledge(const request1 &r, std::uint32_t count, std::span<const std::uint32_t> data,
                 std::uint32_t width, card_answer &answer) {
    put_header(r, r.state | state_acknowledged, 4 + data.size() * width, answer.bytes);
    put_big(answer.bytes, count);
    for (const std::uint32_t item : data)
        put_big(answer.bytes, item, width);
}

// The payload's items, each of `width` bytes.
std::vector<std::uint32_t> items_of(std::span<const std::uint8_t> payload, std::uint32_t width) {
    std::vector<std::uint32_t> items(payload.size() / width);
    if (items.empty())
        return items;
    if (width == 4) {
        std::memcpy(items.data(), payload.data(), 4 * items.size());
        unif_swab_l(items.data(), items.size());
        return items;
    }
    for (std::size_t i = 0; i < items.size(); ++i)
        items[i] = big(payload.data() + i * width, width);
    return items;
}

bool do_read(card &c, const request1 &r, const card_run &run, card_answer &answer) {
    if (r.payload.size() != 4)
        return false;
    const std::uint32_t count = big(r.payload.data());
    if (static_cast<std::uint64_t>(count) * run.width > read_limit)
        return false;
    std::vector<std::uint32_t> items(count);
    if (!card_read(c, run, items))
        return false;
    acknowledge(r, count, items, run.width, answer);
    return true;
}

bool do_write(card &c, const request1 &r, const card_run &run, card_answer &answer) {
    if (r.payload.size() % run.width != 0 || (r.bus == 6 && r.payload.size() > direct_limit))
        return false;
    const std::vector<std::uint32_t> items = items_of(r.payload, run.width);
    if (!card_write(c, run, items))
        return false;
    acknowledge(r, static_cast<std::uint32_t>(items.size()), {}, run.width, answer);
    return true;
}

bool do_modify(card &c, const request1 &r, const card_run &run, card_answer &answer) {
    std::uint32_t word = 0;
    if (r.payload.size() != 8 || run.width != 4 || !card_read(c, run, {&word, 1}))
        return false;
    word = (word & big(r.payload.data())) | big(r.payload.data() + 4);
    if (!card_write(c, run, {&word, 1}))
        return false;
    acknowledge(r, 1, {&word, 1}, 4, answer);
    return true;
}

bool do_access(card &c, const request1 &r, card_answer &answer) {
    const std::optional<card_run> run = route(r);
    if (!run || run->width == 0)
        return false;
    if (r.state == state_read)
        return do_read(c, r, *run, answer);
    if (r.state == state_write)
        return do_write(c, r, *run, answer);
    return r.state == state_modify && do_modify(c, r, *run, answer);
}

bool do_personality(card &c, const request1 &r, card_answer &answer) {
    const std::vector<std::uint32_t> words = items_of(r.payload, 4);
    if (words.empty() || r.payload.size() % 4 != 0)
        return false;
    const std::span<const std::uint32_t> arguments = std::span(words).subspan(1);
    if (r.state == state_write && !personality_is_question(r.address)) {
        if (!personality_order(c, r.address, words[0], arguments))
            return false;
        acknowledge(r, static_cast<std::uint32_t>(words.size()), {}, 4, answer);
        return true;
    }
    if (r.state != state_read || !personality_is_question(r.address))
        return false;
    const std::vector<std::uint32_t> said = personality_question(c, r.address, words[0], arguments);
    if (said.empty())
        return false;
    acknowledge(r, static_cast<std::uint32_t>(said.size()), said, 4, answer);
    return true;
}

std::optional<std::uint8_t> whole(std::span<const std::uint8_t> in) {
    if (in.size() < header_bytes || in.size() - header_bytes < big(in.data() + 12))
        return std::nullopt;
    return in[5];
}

taken_request take(card &c, std::span<const std::uint8_t> in, bool refuse, card_answer &answer) {
    if (in.size() < header_bytes)
        return {};
    const std::uint32_t size = big(in.data() + 12);
    if (big(in.data()) != protocol_magic || size > largest_payload)
        return {take_result::malformed, 0};
    if (in.size() < header_bytes + size)
        return {};
    const request1 r = {in[4], in[5], in[6], in[7], big(in.data() + 8), in.subspan(header_bytes, size)};
    const bool done = !refuse && (r.command == cmd_access        ? do_access(c, r, answer)
                                  : r.command == cmd_personality ? do_personality(c, r, answer)
                                                                 : false);
    if (!done)
        refuse_it(r, answer);
    const std::uint32_t width = protocol_width(r.width);
    const bool read = r.state == state_read && r.command == cmd_access && size == 4;
    const std::uint32_t items = read ? big(r.payload.data()) : width != 0 ? size / width : size;
    const std::uint32_t first = size >= width && width != 0 ? big(r.payload.data(), width) : 0;
    c.seen.push_back({r.command, r.bus, r.width, r.state, r.address, items, read ? 0 : first, 0, !done});
    return {take_result::taken, header_bytes + size};
}

} // namespace

const wire_protocol protocol1 = {{0, -1, 4, 7, 12, 16, true}, whole, take};

} // namespace kestrel
