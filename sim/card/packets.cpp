#include "sim/card/packets.h"

#include "sim/card/card.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <deque>
#include <map>

namespace kestrel {

namespace {

enum : std::uint32_t { // registers of the data link
    link_host_ip = 6,  // and the first half of the next
    link_card_ip = 7,  // second half, and the first of the next
    link_card_port = 8,
    link_host_port = 9,
    link_packet = 12,
    link_enable = 15,
};
constexpr std::size_t largest_payload_bytes = 8992;
constexpr std::uint32_t packet_offset = 127; // register 12 = packet bytes / 8 - 127

struct scope_job {
    card *owner;
    std::uint32_t address, bytes, frame;
};

struct held_frame {
    std::vector<card_packet> packets;
};

struct late_packets {
    card *owner;
    int stream;
    std::vector<card_packet> packets;
};

std::deque<scope_job> scope_jobs;
card_clock::time_point scope_free{}; // when the next may go
std::multimap<card_clock::time_point, late_packets> late;
std::map<std::pair<const card *, int>, held_frame> held;
std::vector<card_packet> scratch;
datagram_sender sender;

std::uint32_t link_register(card &c, std::uint32_t number) {
    return c.words(card_target::rdma).get(number);
}

// Two words hold an address: its bytes 0, 1 in bits 16 to 31 of one, 2, 3 in bits 0 to 15 of the next.
std::uint32_t address_in(card &c, std::uint32_t number) {
    return link_register(c, number) >> 16 | link_register(c, number + 1) << 16; // network order in memory
}

std::uint16_t swapped(std::uint32_t port) {
    return static_cast<std::uint16_t>((port >> 8 & 255) | (port & 255) << 8);
}

bool open_link(card &c, const sockaddr_in &from) {
    data_link &link = c.link;
    if (link.socket && link.address == from.sin_addr.s_addr && link.port == from.sin_port)
        return true;
    link.socket = datagrams_socket(from.sin_addr.s_addr, from.sin_port);
    link.address = from.sin_addr.s_addr;
    link.port = from.sin_port;
    return static_cast<bool>(link.socket);
}

// Copies what lies in somebody's frame, for packets that outlive it.
void own_payload(card_packet &p) {
    if (p.own.empty() && p.bytes > 0)
        p.own.assign(p.payload, p.payload + p.bytes);
    p.payload = p.own.data();
}

void transmit(card &c, int stream, std::span<const card_packet> packets) {
    sockaddr_in from{}, to{};
    const bool ready = packets_ends(c, stream, from, to) && open_link(c, from);
    const std::size_t taken = ready ? sender.send(c.link.socket.get(), to, packets) : 0;
    for (const card_packet &p : packets.first(taken))
        c.counts.bytes += p.bytes;
    c.counts.packets += taken;
    c.counts.unsent += packets.size() - taken;
}

void take_delayed(card &c, int stream, std::vector<card_packet> &packets) {
    for (auto p = packets.begin(); p != packets.end();) {
        if (p->delay == 0) {
            ++p;
            continue;
        }
        own_payload(*p);
        late_packets waiting = {&c, stream, {}};
        const auto due = card_clock::now() + std::chrono::milliseconds(std::exchange(p->delay, 0));
        waiting.packets.push_back(std::move(*p));
        late.emplace(due, std::move(waiting));
        p = packets.erase(p);
    }
}

void send_with_faults(card &c, int stream, std::uint32_t frame, std::vector<card_packet> &packets) {
    const frame_fate fate =
        packet_faults.apply(card_position(c), stream, frame, largest_payload_bytes, packets);
    c.counts.withheld += fate.withheld;
    take_delayed(c, stream, packets);
    const std::pair<const card *, int> key(&c, stream);
    if (fate.hold) {
        for (card_packet &p : packets)
            own_payload(p);
        held[key].packets = std::move(packets);
        packets = {};
        return;
    }
    transmit(c, stream, packets);
    if (const auto found = held.find(key); found != held.end()) {
        transmit(c, stream, found->second.packets);
        held.erase(found);
    }
}

} // namespace

bool packets_ends(card &c, int stream, sockaddr_in &from, sockaddr_in &to) {
    from.sin_family = to.sin_family = AF_INET;
    from.sin_addr.s_addr = address_in(c, link_card_ip);
    from.sin_port = static_cast<std::uint16_t>(link_register(c, link_card_port) >> 16);
    to.sin_addr.s_addr = address_in(c, link_host_ip);
    const std::uint16_t port = swapped(link_register(c, link_host_port));
    to.sin_port = htons(static_cast<std::uint16_t>(port + (stream == scope_stream ? 0 : 1 + stream)));
    return (link_register(c, link_enable) & 1) != 0 && from.sin_addr.s_addr != 0 && to.sin_addr.s_addr != 0;
}

std::size_t packets_payload(card &c) {
    const std::size_t packet = 8 * (static_cast<std::size_t>(link_register(c, link_packet)) + packet_offset);
    return std::min(packet - trailer_bytes, largest_payload_bytes);
}

void packets_cut(std::span<const std::uint8_t> data, std::size_t payload, std::uint32_t frame,
                 std::vector<card_packet> &packets) {
    packets.clear();
    for (std::size_t done = 0; done < data.size(); done += payload) {
        card_packet &p = packets.emplace_back();
        p.payload = data.data() + done;
        p.bytes = std::min(payload, data.size() - done);
        p.trailer[0] = frame;
        p.trailer[1] = static_cast<std::uint32_t>(packets.size() - 1) | (done == 0 ? trailer_start : 0) |
                       (done + payload >= data.size() ? trailer_end : 0);
    }
}

void packets_send_frame(card &c, int stream, std::uint32_t frame, std::span<const std::uint8_t> data) {
    packets_cut(data, packets_payload(c), frame, scratch);
    ++c.counts.frames;
    if (packet_faults.empty() && held.empty())
        transmit(c, stream, scratch);
    else
        send_with_faults(c, stream, frame, scratch);
}

void packets_queue_scope(card &c, std::uint32_t address, std::uint32_t bytes, std::uint32_t frame) {
    scope_jobs.push_back({&c, address, bytes, frame});
    cards.changed.notify_all();
}

bool packets_work() {
    if (!late.empty() && late.begin()->first <= card_clock::now()) {
        const late_packets &first = late.begin()->second;
        transmit(*first.owner, first.stream, first.packets);
        late.erase(late.begin());
        return true;
    }
    if (scope_jobs.empty() || card_clock::now() < scope_free)
        return false;
    const scope_job job = scope_jobs.front();
    scope_jobs.pop_front();
    std::vector<std::uint32_t> words((job.bytes + 3) / 4);
    job.owner->words(card_target::memory).read(job.address / 4, words);
    packets_send_frame(*job.owner, scope_stream, job.frame,
                       {reinterpret_cast<const std::uint8_t *>(words.data()), job.bytes});
    const std::chrono::duration<double> taken(8e-9 * job.bytes / cards.scope_gigabits);
    scope_free = card_clock::now() + std::chrono::duration_cast<card_clock::duration>(taken);
    return true;
}

std::optional<card_clock::time_point> packets_due() {
    std::optional<card_clock::time_point> due;
    if (!late.empty())
        due = late.begin()->first;
    if (!scope_jobs.empty())
        due = due ? std::min(*due, scope_free) : scope_free;
    return due;
}

void packets_forget(const card &c) {
    std::erase_if(scope_jobs, [&](const scope_job &job) { return job.owner == &c; });
    std::erase_if(late, [&](const auto &l) { return l.second.owner == &c; });
    std::erase_if(held, [&](const auto &h) { return h.first.first == &c; });
}

} // namespace kestrel
