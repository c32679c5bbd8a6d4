// Generation 2: every request has a sequence number that its answer repeats. So several writes may be under way: they
// leave in one go, and their answers are read after them, in order.
#include "pulsar3/lib/wire/access.h"
#include "pulsar3/lib/wire/connection.h"
#include "pulsar3/lib/wire/error.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kestrel {

namespace {

constexpr std::size_t posted_max = 16; // writes of one call that wait for their answers

// What one request writes.
struct write_piece {
    std::uint32_t address;
    std::span<const std::byte> data;
};

// A whole write; its pieces are counted chunk by chunk, then place by place.
struct write_plan {
    const char *function; // what texts begin with
    plr4_protocol_commands command, embedded;
    fem_target target;
    std::span<const std::byte> items;
    std::size_t chunk;

    std::size_t chunks() const { return (items.size() + chunk - 1) / chunk; }
    std::size_t pieces() const { return chunks() * target.copies; }
    write_piece piece(std::size_t index) const {
        const std::size_t copy = index / chunks(), begin = index % chunks() * chunk;
        const auto item = static_cast<std::uint32_t>(begin / width_bytes(target.width));
        return {target.address + static_cast<std::uint32_t>(copy) * target.copy_step + item * target.step,
                items.subspan(begin, std::min(chunk, items.size() - begin))};
    }
};

plr4_protocol_header header_of(FemHandle &h, plr4_protocol_commands command, const fem_target &target,
                               std::uint32_t address, std::uint32_t num_ops) {
    return {.magic = protocol_magic,
            .sequence = h.seq++,
            .command = command,
            .bus_target = target.bus,
            .data_width = target.width,
            .state = 0,
            .address = address,
            .num_ops = num_ops,
            .payload_sz = 0,
            .extra1 = 0,
            .extra2 = 0,
            .extra3 = 0};
}

void embed(plr4_protocol_header &header, std::span<const std::byte> data) {
    std::memcpy(reinterpret_cast<std::byte *>(&header) + plr4_embedded_offset, data.data(), data.size());
}

int fault(FemHandle &h, const char *function, const char *what, std::uint32_t got, std::uint32_t expected) {
    plr3_fail(0, "%s: FEM response has %s %u, expected %u", function, what, got, expected);
    return fem_give_up(h, fem_response_failed);
}

// Judges the header of an answer after which `data` bytes are to come. A refusal and a wrong count get their texts
// from the caller.
int judge(FemHandle &h, const char *function, const plr4_protocol_header &request,
          const plr4_protocol_header &answer, std::size_t data) {
    if (answer.sequence != request.sequence)
        return fault(h, function, "sequence number", answer.sequence, request.sequence);
    if (answer.command != request.command)
        return fault(h, function, "command", answer.command, request.command);
    if (!acknowledges(answer.state))
        return answer.payload_sz == 0 ? fem_not_acknowledged : fem_give_up(h, fem_not_acknowledged);
    if (answer.num_ops != request.num_ops)
        return fem_give_up(h, fem_length_mismatch);
    if (answer.payload_sz != data)
        return fault(h, function, "payload size", answer.payload_sz, static_cast<std::uint32_t>(data));
    return 0;
}

// Sends one request and receives what it asked for.
int transact(FemHandle &h, const char *function, plr4_protocol_header &request, std::span<std::byte> data,
             plr4_protocol_header &begin) {
    std::array<iovec, 1> sent{{{&request, sizeof request}}};
    if (const int rc = fem_send(h, sent, function))
        return rc;
    std::array<iovec, 2> parts{{{&begin, sizeof begin}, {data.data(), data.size()}}};
    fem_answer answer(h, parts);
    if (const int rc = responseTransaction(h, answer, begin.magic, sizeof begin))
        return rc;
    if (const int rc = judge(h, function, request, begin, data.size())) {
        if (answer.have() != sizeof begin)
            fem_give_up(h, rc);
        return rc;
    }
    return answer.need(sizeof begin + data.size());
}

// The answers to the writes that are under way, pieces `first` and on; all are read when some are refused, and the
// first refusal counts, or each for itself.
int collect(FemHandle &h, const write_plan &plan, std::size_t first,
            std::span<const plr4_protocol_header> requests) {
    std::array<plr4_protocol_header, posted_max> answers;
    std::array<iovec, 1> parts{{{answers.data(), requests.size() * sizeof answers[0]}}};
    fem_answer arriving(h, parts);
    const plr4_protocol_header *refused = nullptr;
    for (std::size_t i = 0; i < requests.size(); ++i, arriving.next(), --h.num_posted_writes) {
        if (const int rc = responseTransaction(h, arriving, answers[i].magic, (i + 1) * sizeof answers[0]))
            return rc;
        const int rc = judge(h, plan.function, requests[i], answers[i], 0);
        if (rc == fem_not_acknowledged) {
            refused = refused ? refused : &requests[i];
            if (plan.target.statuses)
                plan.target.statuses[(first + i) / plan.chunks()] = rc;
            if (h.m_valid)
                continue;
            break;
        }
        if (rc == fem_length_mismatch)
            plr3_fail(rc, "%s: Length mismatch during FEM write transaction: requested = %d  responded = %d",
                      plan.function, static_cast<int>(requests[i].num_ops),
                      static_cast<int>(answers[i].num_ops));
        if (rc)
            return rc;
    }
    if (!refused || (plan.target.statuses && h.m_valid))
        return 0;
    return plr3_fail(fem_not_acknowledged,
                     "%s: FEM response did not acknowledge write transaction to address 0x%x", plan.function,
                     refused->address);
}

// Sends the pieces from `first` on, as many as may be under way, and waits for their answers.
int post(FemHandle &h, const write_plan &plan, std::size_t first, std::size_t count) {
    std::array<plr4_protocol_header, posted_max> requests;
    std::array<iovec, 2 * posted_max> parts;
    std::size_t used = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const auto [address, data] = plan.piece(first + i);
        const bool embedded = data.size() <= plr4_embedded_max;
        requests[i] = header_of(h, embedded ? plan.embedded : plan.command, plan.target, address,
                                static_cast<std::uint32_t>(data.size() / width_bytes(plan.target.width)));
        parts[used++] = {&requests[i], sizeof requests[i]};
        if (embedded) {
            embed(requests[i], data);
        } else {
            requests[i].payload_sz = static_cast<std::uint32_t>(data.size());
            parts[used++] = {const_cast<std::byte *>(data.data()), data.size()};
        }
    }
    if (const int rc = fem_ready(h, plan.function))
        return rc;
    if (const int rc = fem_send(h, std::span(parts).first(used), plan.function))
        return rc;
    h.num_posted_writes = static_cast<int>(count);
    return collect(h, plan, first, std::span(requests).first(count));
}

int run(FemHandle &h, const write_plan &plan) {
    const std::size_t most = static_cast<std::size_t>(std::clamp<int>(h.max_posted_writes, 1, posted_max));
    for (std::size_t first = 0; first < plan.pieces(); first += most)
        if (const int rc = post(h, plan, first, std::min(most, plan.pieces() - first)))
            return rc;
    return 0;
}

int read_chunk(FemHandle &h, const fem_target &target, std::uint32_t address, std::span<std::byte> items) {
    if (const int rc = fem_ready(h, "plr4AccessRead"))
        return rc;
    const auto count = static_cast<std::uint32_t>(items.size() / width_bytes(target.width));
    auto request = header_of(h, PLR4_CMD_READ, target, address, count);
    request.payload_sz = static_cast<std::uint32_t>(items.size());
    plr4_protocol_header answer;
    const int rc = transact(h, "plr4AccessRead", request, items, answer);
    if (rc == fem_not_acknowledged)
        plr3_fail(rc, "plr4AccessRead: FEM response did not acknowledge read transaction from address 0x%x",
                  address);
    if (rc == fem_length_mismatch)
        plr3_fail(rc, "Length mismatch when reading: requested %d got %d", static_cast<int>(count),
                  static_cast<int>(answer.num_ops));
    return rc;
}

// A request that the card carries out by itself: one header, and what it answers.
int single(FemHandle &h, const char *function, plr4_protocol_header &request, std::span<std::byte> data) {
    plr4_protocol_header answer;
    const int rc = transact(h, function, request, data, answer);
    if (rc == fem_not_acknowledged)
        plr3_fail(rc, "%s: FEM response did not acknowledge transaction at address 0x%x", function,
                  request.address);
    if (rc == fem_length_mismatch)
        plr3_fail(rc, "%s: Length mismatch: requested %u got %u", function, request.num_ops, answer.num_ops);
    return rc;
}

constexpr fem_target personality_target(std::uint32_t code) {
    return {.bus = 0, .width = WIDTH_LONG, .address = code, .step = 0};
}

} // namespace

int plr4AccessWrite(FemHandle &h, const fem_target &target, std::span<const std::byte> items) {
    if (items.empty())
        return 0;
    return run(h, {"plr4AccessWrite", PLR4_CMD_WRITE, PLR4_CMD_WRITE_EMB, target, items,
                   static_cast<std::size_t>(h.max_tx_bytes)});
}

int plr4AccessRead(FemHandle &h, const fem_target &target, std::span<std::byte> items) {
    std::uint32_t address = target.address;
    while (!items.empty()) {
        const std::size_t bytes = std::min(items.size(), static_cast<std::size_t>(h.max_rx_bytes));
        if (const int rc = read_chunk(h, target, address, items.first(bytes)))
            return rc;
        address += static_cast<std::uint32_t>(bytes / width_bytes(target.width)) * target.step;
        items = items.subspan(bytes);
    }
    return 0;
}

int plr4AccessRMW(FemHandle &h, const fem_target &target, std::uint32_t mask, std::uint32_t value,
                  std::uint32_t &result) {
    if (const int rc = fem_ready(h, "plr4AccessRMW"))
        return rc;
    auto request = header_of(h, PLR4_CMD_RMW, target, target.address, 1);
    const std::array words{mask, value};
    embed(request, std::as_bytes(std::span(words)));
    std::uint32_t now = 0;
    const int rc = single(h, "plr4AccessRMW", request, std::as_writable_bytes(std::span(&now, 1)));
    if (rc == 0)
        result = now;
    return rc;
}

int plr4AccessZero(FemHandle &h, const fem_target &target, std::uint32_t words) {
    if (words == 0)
        return 0;
    if (const int rc = fem_ready(h, "plr4AccessZero"))
        return rc;
    auto request = header_of(h, PLR4_CMD_MEM_ZERO, target, target.address, words);
    return single(h, "plr4AccessZero", request, {});
}

int plr4PersonalityWrite(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words) {
    const auto data = std::as_bytes(words);
    return run(h, {"plr4PersonalityWrite", PLR4_CMD_PERSONALITY_WRITE, PLR4_CMD_PERSONALITY_WRITE_EMB,
                   personality_target(code), data, data.size()});
}

int plr4PersonalityRead(FemHandle &h, std::uint32_t code, std::span<const std::uint32_t> words,
                        std::span<std::uint32_t> result) {
    if (const int rc = fem_ready(h, "plr4PersonalityRead"))
        return rc;
    auto request = header_of(h, PLR4_CMD_PERSONALITY_READ, personality_target(code), code,
                             static_cast<std::uint32_t>(result.size()));
    embed(request, std::as_bytes(words));
    return single(h, "plr4PersonalityRead", request, std::as_writable_bytes(result));
}

} // namespace kestrel
