#include "sim/card/personality.h"

#include "sim/card/card.h"
#include "sim/card/packets.h"

#include <algorithm>
#include <array>

namespace kestrel {

namespace {

enum : std::uint32_t {
    code_reset = 1,
    code_build = 3,
    code_start = 4,
    code_test_pattern = 6,
    code_print_data = 7,
    code_resend = 9,
    code_status = 10,
    code_build_debug = 11,
    code_print = 12,
    code_check = 13,
    code_descriptor_status = 16,
    code_reuse = 17,
};

using words = std::span<const std::uint32_t>;

struct order_rule {
    std::uint32_t code;
    std::size_t arguments;
};
constexpr order_rule orders[] = {
    {code_reset, 0},  {code_build, 4},       {code_start, 3}, {code_test_pattern, 4}, {code_print_data, 3},
    {code_resend, 3}, {code_build_debug, 6}, {code_print, 3}, {code_reuse, 3},
};

constexpr std::uint32_t dma_bytes_max = 64 << 20; // of one order
constexpr std::size_t descriptors_max = 1 << 16;

void reset(dma_stream &s) {
    s.next_frame = 0;
    for (dma_descriptor &d : s.descriptors)
        d.state = 1;
}

// Cuts [address, address + bytes) of the card's memory into blocks, one descriptor each.
bool build(dma_stream &s, std::uint32_t address, std::uint32_t bytes, std::uint32_t block) {
    if (block == 0 || bytes == 0 || bytes > dma_bytes_max || block % 4 != 0 || address % 4 != 0 ||
        bytes / block >= descriptors_max || address > 0xffffffff - bytes)
        return false;
    s.descriptors.clear();
    for (std::uint32_t done = 0; done < bytes; done += std::min(block, bytes - done))
        s.descriptors.push_back({address + done, std::min(block, bytes - done), 0, 1});
    s.base = address;
    s.size = bytes;
    s.block = block;
    return true;
}

// Arguments of start, resend and reuse: first descriptor, how many, options.
bool in_range(const dma_stream &s, words a) {
    return a[1] > 0 && a[0] < s.descriptors.size() && a[1] <= s.descriptors.size() - a[0];
}

void start(card &c, std::size_t stream, words a, bool again) {
    dma_stream &s = c.dma[stream];
    s.transfer_start = a[0];
    s.transfer_size = a[1];
    for (std::uint32_t i = a[0]; i < a[0] + a[1]; ++i) {
        dma_descriptor &d = s.descriptors[i];
        if (!again)
            d.frame = s.next_frame++;
        d.state = 2;
        packets_queue_scope(c, d.address, d.bytes, d.frame);
    }
}

// Words that rise by a step: address and size in bytes, first word, step.
bool test_pattern(card &c, words a) {
    if (a[0] % 4 != 0 || a[1] > dma_bytes_max || a[0] > 0xffffffff - a[1])
        return false;
    std::vector<std::uint32_t> pattern(a[1] / 4);
    for (std::uint32_t value = a[2]; std::uint32_t & word : pattern) {
        word = value;
        value += a[3];
    }
    c.words(card_target::memory).write(a[0] / 4, pattern);
    return true;
}

bool order_stream(card &c, std::size_t stream, std::uint32_t code, words a) {
    dma_stream &s = c.dma[stream];
    switch (code) {
    case code_reset:
        reset(s);
        return true;
    case code_build:
        return build(s, a[1], a[2], a[3]);
    case code_start:
    case code_resend:
        if (!in_range(s, a))
            return false;
        start(c, stream, a, code == code_resend);
        return true;
    case code_reuse:
        if (!in_range(s, a))
            return false;
        for (std::uint32_t i = a[0]; i < a[0] + a[1]; ++i)
            s.descriptors[i].state = 1;
        return true;
    default:
        return true; // printed on the card's own console
    }
}

// 8 words of the card, then 13 a stream.
std::vector<std::uint32_t> status_block(const card &c) {
    std::vector<std::uint32_t> block = {
        static_cast<std::uint32_t>(dma_streams), c.revision, c.next_frame, 0, 0, 0, 0, 0};
    for (const dma_stream &s : c.dma) {
        const auto defined = static_cast<std::uint32_t>(s.descriptors.size());
        const std::uint32_t state = defined == 0 ? 0 : s.transfer_size == 0 ? 1 : 2;
        block.insert(block.end(), {state, s.base, 1u, 0u, defined, s.base, s.size, s.block, defined,
                                   s.transfer_start, s.transfer_size, s.next_frame, 0u});
    }
    return block;
}

} // namespace

bool personality_is_question(std::uint32_t code) {
    return code == code_status || code == code_check || code == code_descriptor_status;
}

bool personality_order(card &c, std::uint32_t code, std::uint32_t mask, words arguments) {
    const auto *rule = std::find_if(std::begin(orders), std::end(orders),
                                    [&](const order_rule &o) { return o.code == code; });
    if (rule == std::end(orders) || arguments.size() < rule->arguments || mask >> dma_streams != 0)
        return false;
    if (code == code_test_pattern)
        return test_pattern(c, arguments);
    bool done = true;
    for (std::size_t stream = 0; stream < dma_streams; ++stream) {
        if (mask >> stream & 1)
            done = order_stream(c, stream, code, arguments) && done;
    }
    return done;
}

std::vector<std::uint32_t> personality_question(card &c, std::uint32_t code, std::uint32_t mask,
                                                words arguments) {
    if (code == code_status)
        return status_block(c);
    std::size_t stream = 0;
    while (stream < dma_streams && !(mask >> stream & 1))
        ++stream;
    if (stream == dma_streams || arguments.empty())
        return {};
    const dma_stream &s = c.dma[stream];
    if (code == code_descriptor_status)
        return {arguments[0] < s.descriptors.size() ? s.descriptors[arguments[0]].state : 0};
    const auto defined = static_cast<std::uint32_t>(s.descriptors.size());
    return {defined, s.size, 0}; // descriptors, their bytes, faults found
}

} // namespace kestrel
