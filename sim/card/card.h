// sim/card: a card's whole state, and the system of cards that share a run line.
//
// Every member is guarded by the system's lock, but for what is constant after the start. Three threads meet here: the
// control thread (control.h), the timing thread (timing.h) and the command thread.
#pragma once

#include "sim/card/kinds.h"
#include "sim/card/packets.h"
#include "sim/card/protocol.h"
#include "sim/card/readout.h"
#include "sim/card/sparse_words.h"
#include "sim/card/spectrum.h"
#include "sim/card/targets.h"
#include "sim/card/timing.h"
#include "support/fair_mutex.h"

#include <array>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <vector>

namespace kestrel {

inline constexpr std::uint32_t global_block = 15u << 20 | 15u << 16; // word of generation-3 globals
inline constexpr std::uint32_t glob_time_a = 2;
inline constexpr std::uint32_t glob_time_fixed = 3;
inline constexpr std::uint32_t glob_frames = 8;
inline constexpr std::uint32_t glob_num_tf = 9;
inline constexpr std::uint32_t glob_status_a = 32;
inline constexpr std::uint32_t glob_time_status_a = 34;

inline constexpr std::uint32_t chan_format = 28;
inline constexpr std::uint32_t chan_windows = 24; // and 25
inline constexpr std::uint32_t chan_good_threshold = 26;

inline constexpr std::uint32_t scaler_start = 0x20000000; // word of the card's memory
inline constexpr std::uint32_t scalers_per_channel = 9;

// One request as the control link saw it.
struct card_seen {
    std::uint8_t command, bus, width, state;
    std::uint32_t address, items, first; // the first item written, mask of a read-modify-write, stream mask
    std::uint32_t sequence;
    bool refused;
};

struct card_counts {
    std::uint64_t transactions = 0, refused = 0, malformed = 0, connections = 0, open = 0;
    std::uint64_t frames = 0, packets = 0, bytes = 0, withheld = 0, unsent = 0;
};

struct dma_descriptor {
    std::uint32_t address = 0, bytes = 0;
    std::uint32_t frame = 0;
    std::uint32_t state = 0; // 0 none, 1 built, 2 sent
};

struct dma_stream {
    std::vector<dma_descriptor> descriptors;
    std::uint32_t base = 0, size = 0, block = 0, next_frame = 0, transfer_start = 0, transfer_size = 0;
};

inline constexpr std::size_t dma_streams = 8;

struct card {
    // constant after the start
    int index = 0; // in the installation, from which its addresses come
    const card_kind *kind = nullptr;
    int protocol = 1;
    int channels = 0;
    std::uint32_t revision = 0;
    std::array<std::uint32_t, 4> features{};
    sockaddr_in control{}; // address and port of the protocol that it speaks

    // what a power-up resets
    std::array<sparse_words, card_targets> store;
    std::map<std::uint32_t, std::array<std::uint8_t, 256>> i2c;
    std::map<std::uint32_t, std::uint8_t> i2c_pointer; // register that the next plain access begins at
    std::array<dma_stream, dma_streams> dma;
    std::uint32_t next_frame = 0;   // number of the next histogram frame
    std::uint32_t frames_ended = 0; // of this run

    readout_link readout; // mini models only
    card_run_state run;
    data_link link;
    std::array<channel_model, card_max_channels> models;

    bool alive = true;
    card_counts counts;
    std::deque<card_seen> seen; // the last requests

    sparse_words &words(card_target t) { return store[static_cast<std::size_t>(t)]; }
    const wire_protocol &wire() const { return protocol == 1 ? protocol1 : protocol2; }
    std::uint32_t global(std::uint32_t offset);
    void set_global(std::uint32_t offset, std::uint32_t value);
    std::uint32_t chan_register(int chan, std::uint32_t offset);
};

inline constexpr std::size_t card_seen_max = 4096;

// The cards of this process: one system, card 0's run line gates the others.
struct card_system {
    fair_mutex lock;
    std::condition_variable_any changed; // the run line, the clock or the work of the timing thread
    std::vector<std::unique_ptr<card>> cards;
    std::uint64_t seed = 1;
    double clock = 8e7;          // ticks a second of a card
    bool pattern = false;        // frames and scalers are a known pattern instead of events
    bool keep = true;            // frames stay in the card's memory, too
    double scope_gigabits = 4.0; // a second of scope data, which one thread has to take
    double speed = 1.0;          // seconds of a card in a second of this machine
    int base_port = 30123;
    int gate_port = 0; // where a timing unit may connect; 0: nowhere
    std::array<int, 4> base{127, 0, 0, 1};
};

extern card_system cards;

// The card's place in the system, by which commands and faults name it.
inline int card_position(const card &c) {
    return c.index - cards.cards.front()->index;
}

// Everything as after switching on.
void card_power_up(card &c);
// What only the card itself writes, put back after a write of others.
void card_put_constants(card &c);

// In network order, the base address with its last part advanced (by one of those below for a card with this index).
std::uint32_t card_address(int last);
inline int card_control_last(int index) {
    return index + 1;
}
inline int card_host_last(int index) {
    return 4 * index + 64;
}

} // namespace kestrel
