// pulsar3/lib/frames: the histogram frames of one channel, packet by packet: where the next ones belong, which frames
// are whole, what is missing. No socket here: frame_reader.h brings the packets.
//
// A packet's numbers are believed as far as they agree with its marks, its size and the packet behind it:
// - one that contradicts itself is malformed and not used;
// - packets of the frame under way take their places in any order; one that is there already is repeated;
// - one of a later frame ends the frame under way. Where that leaves out more than the end of it, the packet is held
//   until the next one agrees, so that a single wrong number costs its own frame only;
// - one of an earlier frame is late, or repeated when that frame is whole.
// A frame that ends with a gap, or whose packets came twice and differ, is zeroed and marked incomplete.
#pragma once

#include "pulsar3/lib/frames/trailer.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kestrel {

inline constexpr std::size_t frame_packet_payload = 8992; // bytes of every packet but a frame's last

enum frame_status : std::uint32_t { frame_not_yet = 0, frame_whole = 1, frame_incomplete = 2 };

// Where a channel's frames go. Its status words and those of missing packets are `pitch` words apart.
struct frame_area {
    std::span<std::uint32_t> buffer; // the frames one after the other
    std::size_t frame_words = 0;
    std::uint32_t *status = nullptr; // null: nobody keeps them
    std::uint32_t *missing = nullptr;
    std::size_t pitch = 0;
    bool circular = false;  // frame n lies at n modulo the frames there are
    bool farm_mode = false; // packets may be padded

    std::uint64_t frames() const { return frame_words == 0 ? 0 : buffer.size() / frame_words; }
};

// A count that one thread raises and any reads.
class running_count {
  public:
    running_count &operator+=(std::uint64_t n) {
        value_.store(value_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
        return *this;
    }
    running_count &operator-=(std::uint64_t n) { return *this += ~n + 1; }
    void operator=(std::uint64_t n) { value_.store(n, std::memory_order_relaxed); }
    operator std::uint64_t() const { return value_.load(std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> value_{0};
};

// Of a run. Frames: sent = whole + incomplete + missing. The rest is told beside them.
struct frame_counts {
    running_count reached; // frames that have ended here, whole or not
    running_count whole, incomplete, missing;
    running_count beyond;                    // of the whole ones: the buffer has no place for them
    running_count late, repeated, malformed; // packets that were of no use
};

class frame_assembler {
  public:
    frame_counts counts;

    // The next run's area. Before start() only.
    void set_area(const frame_area &area);
    const frame_area &area() const { return area_; }

    // A run begins: frame 0 comes next; counts and statuses are 0.
    void start();

    // A packet that is expected. Without a place its frame is not kept.
    struct slot {
        std::uint64_t frame = 0;
        std::uint32_t packet = 0;
        std::byte *place = nullptr;
        std::size_t bytes = 0;
        bool ends = false; // the last of its frame
    };
    slot next() const { return slot_of(frame_, lowest_); }
    slot after(const slot &s) const;
    // The slot's bytes are about to be written: from here on its frame's place is not to be trusted.
    void open(const slot &s);

    // Whether this packet, in its slot, is the expected one; it is taken then.
    bool take_in_place(const slot &s, const packet_info &packet);
    // A packet that lies anywhere else.
    void take(std::span<const std::byte> packet);

    // For frames that do not come in packets: the place of this one, zeroed when it is new, until end_open_frame();
    // empty where there is none, nothing for a late one.
    std::optional<std::span<std::uint32_t>> open_frame(std::uint32_t number);
    void end_open_frame() { end_whole(); }

    // The run is over and the card has sent so many frames: what has not come is missing.
    void finish(std::uint64_t frames_sent);

    bool is_under_way() const { return received_ > 0 || !held_.empty(); }
    std::uint32_t packets_of_frame() const { return packets_; }
    std::uint64_t expected_frame() const { return frame_; }
    // The first gap since this was asked before: the frame that came, and the one that was expected.
    struct gap {
        std::uint64_t read = 0, expected = 0;
        bool any = false;
    };
    gap take_gap();

    // Circular buffers: frames below this one have been read; what overwrites another is an overrun.
    std::atomic<std::uint64_t> acknowledged{0};
    running_count overruns;
    std::atomic<std::int64_t> first_overrun{-1};

  private:
    slot slot_of(std::uint64_t frame, std::uint32_t packet) const;
    std::size_t place_index(std::uint64_t frame) const; // no_place where there is none
    std::span<std::uint32_t> place_of(std::uint64_t frame) const;
    std::uint64_t extended(std::uint32_t number) const;
    bool fits(const packet_info &info) const;
    bool has(std::uint32_t packet) const;
    bool needs_agreement(std::uint64_t frame, const packet_info &info) const;
    bool agrees_with_held(std::uint64_t frame, const packet_info &info) const;
    void hold(std::span<const std::byte> packet, std::uint64_t frame, const packet_info &info);
    void release_held(bool believed);
    void use(std::uint64_t frame, const packet_info &info, std::span<const std::byte> payload);
    void use_old(std::uint64_t frame, const packet_info &info, std::span<const std::byte> payload);
    bool differs(std::uint64_t frame, std::uint32_t packet, std::span<const std::byte> payload) const;
    void mark_received(std::uint32_t packet);
    void skip_to(std::uint64_t frame);
    void end_frame();
    void end_whole();
    void end_incomplete();
    void lose(std::uint64_t first, std::uint64_t n);
    void spoil(std::uint64_t frame, std::uint32_t missing);
    void set_status(std::uint64_t frame, frame_status status, std::uint32_t missing);
    void note_overrun(std::uint64_t frame);
    void begin(std::uint64_t frame);

    frame_area area_;
    std::uint32_t packets_ = 0;      // of a frame
    std::size_t last_bytes_ = 0;     // payload of its last
    std::uint64_t frame_ = 0;        // the frame under way, or the next
    std::uint32_t received_ = 0;     // packets of it
    std::uint32_t lowest_ = 0;       // the first of it that has not come
    bool in_order_ = true;           // all that came lie below it
    bool spoiled_ = false;           // it will not be whole
    std::vector<bool> out_of_order_; // which came, when not in order
    std::vector<std::byte> held_;    // a packet that waits for another's word
    std::uint64_t held_frame_ = 0;
    packet_info held_info_;
    gap gap_;
};

} // namespace kestrel
