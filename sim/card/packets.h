// sim/card: frames cut into packets and sent over the data link as the card's registers say. Under the system's lock.
#pragma once

#include "sim/card/datagrams.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>

namespace kestrel {

struct card;

using card_clock = std::chrono::steady_clock;

// The card's end of the data link, open as its registers last said.
struct data_link {
    unique_fd socket;
    std::uint32_t address = 0;
    std::uint16_t port = 0;
};

// One frame of a stream (a channel's histogram, or scope data).
void packets_send_frame(card &c, int stream, std::uint32_t frame, std::span<const std::uint8_t> data);

// Has the timing thread send so many bytes of the card's memory as one frame of scope data.
void packets_queue_scope(card &c, std::uint32_t address, std::uint32_t bytes, std::uint32_t frame);

// One piece of what waits: a frame of scope data, packets whose delay is over. False when nothing is due.
bool packets_work();
// When there is more to do; nothing when nothing waits.
std::optional<card_clock::time_point> packets_due();

// Forgets what waits of a card that has died.
void packets_forget(const card &c);

// Where a stream of the card goes, and the address that it comes from; false when the data link is not set up.
bool packets_ends(card &c, int stream, sockaddr_in &from, sockaddr_in &to);

// Payload bytes of the card's packets.
std::size_t packets_payload(card &c);

// Cuts a frame into packets of so many payload bytes.
void packets_cut(std::span<const std::uint8_t> data, std::size_t payload, std::uint32_t frame,
                 std::vector<card_packet> &packets);

} // namespace kestrel
