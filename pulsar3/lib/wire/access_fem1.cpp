// Generation 1: one request, one answer. An answer is 20 bytes (header and count), and what was read.
#include "pulsar3/lib/wire/access.h"
#include "pulsar3/lib/wire/connection.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/wire_order.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kestrel {

namespace {

struct fem1_request {
    const char *function; // what texts begin with
    protocol_commands command;
    std::uint8_t bus;
    protocol_data_width width;
    std::uint8_t state;
    std::uint32_t address;
    std::uint32_t count; // items that the answer must name
};

// The items as they travel, in the handle's own buffer.
std::span<std::byte> converted(FemHandle &h, std::span<const std::byte> items, protocol_data_width width) {
    if (h.converted.size() < items.size())
        h.converted.resize(items.size());
    to_wire_order(items, h.converted.data(), width);
    return std::span(h.converted).first(items.size());
}

ProtocolHeader header_of(const fem1_request &request, std::size_t payload) {
    return {.magic = big_endian(protocol_magic),
            .command = request.command,
            .bus_target = request.bus,
            .data_width = request.width,
            .state = request.state,
            .address = big_endian(request.address),
            .payload_sz = big_endian(static_cast<std::uint32_t>(payload))};
}

// Judges an answer of which header and count are there. A refusal and a wrong count get their texts from the caller;
// `answered` is the count.
int judge(FemHandle &h, const fem1_request &request, const ProtocolAnswer &answer, std::size_t data,
          std::uint32_t &answered) {
    const std::uint32_t payload = big_endian(answer.header.payload_sz);
    answered = big_endian(answer.count);
    if (answer.header.command != request.command) {
        plr3_fail(0, "%s: FEM response is to command %d, requested %d", request.function,
                  answer.header.command, request.command);
        return fem_give_up(h, fem_response_failed);
    }
    if (!acknowledges(answer.header.state))
        return payload == sizeof answer.count ? fem_not_acknowledged : fem_give_up(h, fem_not_acknowledged);
    if (answered != request.count)
        return fem_give_up(h, fem_length_mismatch);
    if (payload != sizeof answer.count + data) {
        plr3_fail(0, "%s: FEM response has %u bytes, expected %zu", request.function, payload,
                  sizeof answer.count + data);
        return fem_give_up(h, fem_response_failed);
    }
    return 0;
}

// Sends the request with its payload (in wire order) and receives what it asked for (in memory order).
int transact(FemHandle &h, const fem1_request &request, std::span<std::byte> payload,
             std::span<std::byte> data, std::uint32_t &answered) {
    if (const int rc = fem_ready(h, request.function))
        return rc;
    ProtocolHeader header = header_of(request, payload.size());
    std::array<iovec, 2> sent{{{&header, sizeof header}, {payload.data(), payload.size()}}};
    if (const int rc = fem_send(h, sent, request.function))
        return rc;
    ProtocolAnswer begin;
    std::array<iovec, 2> parts{{{&begin, sizeof begin}, {data.data(), data.size()}}};
    fem_answer answer(h, parts);
    if (const int rc = responseTransaction(h, answer, begin.header.magic, sizeof begin))
        return rc;
    if (const int rc = judge(h, request, begin, data.size(), answered)) {
        if (answer.have() != sizeof begin)
            fem_give_up(h, rc);
        return rc;
    }
    if (const int rc = answer.need(sizeof begin + data.size()))
        return rc;
    to_wire_order(data, data.data(), request.width);
    return 0;
}

std::size_t most_written(const FemHandle &h, const fem_target &target) {
    return target.bus == BUS_DIRECT ? fem1_direct_tx_bytes : static_cast<std::size_t>(h.max_tx_bytes);
}

int write_chunk(FemHandle &h, const fem_target &target, std::uint32_t address,
                std::span<const std::byte> items) {
    const auto count = static_cast<std::uint32_t>(items.size() / width_bytes(target.width));
    std::uint32_t answered = 0;
    const int rc =
        transact(h, {"femAccessWrite", CMD_ACCESS, target.bus, target.width, STATE_WRITE, address, count},
                 converted(h, items, target.width), {}, answered);
    if (rc == fem_not_acknowledged)
        plr3_fail(rc, "femAccessWrite: FEM response did not acknowledge write transaction to address 0x%x",
                  address);
    if (rc == fem_length_mismatch)
        plr3_fail(
            rc,
            "femAccessWrite: Length mismatch during FEM write transaction: requested = %d  responded = %d",
            static_cast<int>(count), static_cast<int>(answered));
    return rc;
}

int read_chunk(FemHandle &h, const fem_target &target, std::uint32_t address, std::span<std::byte> items) {
    const auto count = static_cast<std::uint32_t>(items.size() / width_bytes(target.width));
    std::uint32_t asked = big_endian(count), answered = 0;
    const int rc =
        transact(h, {"femAccessRead", CMD_ACCESS, target.bus, target.width, STATE_READ, address, count},
                 std::as_writable_bytes(std::span(&asked, 1)), items, answered);
    if (rc == fem_not_acknowledged)
        plr3_fail(rc, "femAccessRead: FEM response did not acknowledge read transaction from address 0x%x",
                  address);
    if (rc == fem_length_mismatch)
        plr3_fail(rc, "Length mismatch when reading: requested %d got %d", static_cast<int>(count),
                  static_cast<int>(answered));
    return rc;
}

// Hands out the items in chunks of `most` bytes, each with its address, until one fails.
template <class Byte, class F>
int in_chunks(const fem_target &target, std::uint32_t address, std::span<Byte> items, std::size_t most,
              F &&chunk) {
    while (!items.empty()) {
        const std::size_t bytes = std::min(items.size(), most);
        if (const int rc = chunk(address, items.first(bytes)))
            return rc;
        address += static_cast<std::uint32_t>(bytes / width_bytes(target.width)) * target.step;
        items = items.subspan(bytes);
    }
    return 0;
}

int personality_failed(int rc, const char *function, std::uint32_t code, std::uint32_t count,
                       std::uint32_t answered) {
    if (rc == fem_not_acknowledged)
        plr3_fail(rc, "%s: FEM response did not acknowledge personality command %u", function, code);
    if (rc == fem_length_mismatch)
        plr3_fail(rc, "%s: Length mismatch in personality command %u: requested %u got %u", function, code,
                  count, answered);
    return rc;
}

} // namespace

int femAccessWrite(FemHandle &h, const fem_target &target, std::span<const std::byte> items) {
    for (unsigned copy = 0; copy < target.copies; ++copy) {
        const int rc =
            in_chunks(target, target.address + copy * target.copy_step, items, most_written(h, target),
                      [&](std::uint32_t address, std::span<const std::byte> chunk) {
                          return write_chunk(h, target, address, chunk);
                      });
        if (target.statuses && rc == fem_not_acknowledged && h.m_valid)
            target.statuses[copy] = rc;
        else if (rc)
            return rc;
    }
    return 0;
}

int femAccessRead(FemHandle &h, const fem_target &target, std::span<std::byte> items) {
    return in_chunks(target, target.address, items, static_cast<std::size_t>(h.max_rx_bytes),
                     [&](std::uint32_t address, std::span<std::byte> chunk) {
                         return read_chunk(h, target, address, chunk);
                     });
}

int femAccessRMW(FemHandle &h, const fem_target &target, std::uint32_t mask, std::uint32_t value,
                 std::uint32_t &result) {
    std::array<std::uint32_t, 2> words{big_endian(mask), big_endian(value)};
    std::uint32_t now = 0, answered = 0;
    const int rc = transact(
        h, {"femAccessRMW", CMD_ACCESS, target.bus, WIDTH_LONG, STATE_READ | STATE_WRITE, target.address, 1},
        std::as_writable_bytes(std::span(words)), std::as_writable_bytes(std::span(&now, 1)), answered);
    if (rc == fem_not_acknowledged)
        plr3_fail(
            rc,
            "femAccessRMW: FEM response did not acknowledge read-modify-write transaction to address 0x%x",
            target.address);
    if (rc == fem_length_mismatch)
        plr3_fail(rc, "femAccessRMW: Length mismatch: requested 1 got %u", answered);
    if (rc == 0)
        result = now;
    return rc;
}

int femPersonalityWrite(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words) {
    const auto count = static_cast<std::uint32_t>(words.size());
    std::uint32_t answered = 0;
    const int rc =
        transact(h, {"femPersonalityWrite", CMD_PERSONALITY, 0, WIDTH_LONG, STATE_WRITE, code, count},
                 converted(h, std::as_bytes(words), WIDTH_LONG), {}, answered);
    return personality_failed(rc, "femPersonalityWrite", code, count, answered);
}

int femPersonalityRead(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words,
                       std::span<std::uint32_t> result) {
    const auto count = static_cast<std::uint32_t>(result.size());
    std::uint32_t answered = 0;
    const int rc =
        transact(h, {"femPersonalityRead", CMD_PERSONALITY, 0, WIDTH_LONG, STATE_READ, code, count},
                 converted(h, std::as_bytes(words), WIDTH_LONG), std::as_writable_bytes(result), answered);
    return personality_failed(rc, "femPersonalityRead", code, count, answered);
}

} // namespace kestrel
