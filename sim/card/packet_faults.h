// sim/card: what is to go wrong with packets of the data link. Under the system's lock.
#pragma once

#include "sim/card/random.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

namespace kestrel {

enum class packet_fault {
    lose,
    repeat,        // sent twice
    swap,          // with the one behind it in the frame
    cut,           // `argument` bytes of payload less
    delay,         // `argument` milliseconds
    frame_number,  // larger by `argument`
    packet_number, // larger by `argument`
    unmark,        // no start, no end
    mark,          // start and end
    pad,           // `argument` pad words
    lose_frame,
    lose_tail,   // from the packet on
    swap_frames, // with the channel's next
    junk,        // `argument` bytes of nonsense before the frame
};

inline constexpr int scope_stream = 16; // beside those of channels 0 to 15

struct packet_rule {
    packet_fault fault;
    int card, stream, frame, packet; // -1 for any
    int times;                       // -1 for ever
    double rate;                     // part of those that fit
    int argument;
};

inline constexpr std::size_t trailer_bytes = 8;
inline constexpr std::uint32_t trailer_start = 1u << 31, trailer_end = 1u << 30, trailer_padded = 1u << 29;

// A packet that is about to be sent. The payload belongs to the frame, or to `own`.
struct card_packet {
    const std::uint8_t *payload = nullptr;
    std::size_t bytes = 0;
    std::uint32_t trailer[2]{};
    int delay = 0;     // milliseconds
    bool bare = false; // without a trailer
    std::vector<std::uint8_t> own{};
};

struct frame_fate {
    bool hold = false; // until the stream's next frame has been sent
    std::size_t withheld = 0;
};

class packet_rules {
  public:
    void add(const packet_rule &rule) { rules_.push_back(rule); }
    void clear() { rules_.clear(); }
    std::size_t size() const { return rules_.size(); }
    bool empty() const { return rules_.empty(); }
    // Lets the rules that fit change a frame's packets. `largest` is what a padded payload may hold.
    frame_fate apply(int card, int stream, std::uint32_t frame, std::size_t largest,
                     std::vector<card_packet> &packets);

  private:
    bool used(packet_rule &rule); // once more, if chance wills
    void change_frame(packet_rule &rule, std::vector<card_packet> &packets, frame_fate &fate);
    std::size_t change_packet(const packet_rule &rule, std::size_t i, std::size_t largest,
                              std::vector<card_packet> &packets, frame_fate &fate);
    std::list<packet_rule> rules_;
    card_random random_{1};
};

extern packet_rules packet_faults;

int packet_usual_argument(packet_fault fault);

} // namespace kestrel
