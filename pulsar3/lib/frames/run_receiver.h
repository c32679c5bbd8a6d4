// pulsar3/lib/frames: the frames of a run, packet by packet: where the next one goes, whether it is the expected one,
// which frames are whole. No socket here: receive_run.h brings the packets.
//
// A packet is received in place, at the end of what the expected frame has so far; only one that belongs to another
// frame is moved. A gap spoils its frame and no other.
#pragma once

#include "pulsar3/lib/frames/trailer.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kestrel {

struct run_result {
    std::size_t bytes = 0; // in whole frames
    int errors = 0;
    int packets = 0;
    int frames = 0; // whole ones
    int lost_packets = 0;
    int lost_frames = 0; // once more each time that a frame is lost again
};

struct run_shape {
    std::span<std::byte> buffer; // the frames one after the other
    std::size_t frame_bytes = 0; // the last frame has what remains
    std::uint32_t first_frame = 0;
    int message_to = -1; // who configured, as plr3_message takes it
};

class run_receiver {
  public:
    run_receiver(const run_shape &shape, run_result &result);

    std::uint32_t frames() const { return static_cast<std::uint32_t>(whole_.size()); }
    bool is_whole(std::uint32_t index) const { return whole_[index] != 0; }
    bool all_whole() const { return static_cast<std::uint32_t>(result_.frames) == frames(); }

    void expect(std::uint32_t first_index, std::uint32_t count); // a pass over these frames begins
    bool done() const { return index_ >= end_; }
    void end_pass(); // what has not come by now is lost

    // Where the payload of the next packet is received, and no further.
    std::span<std::byte> room() const;
    // A packet that was received into room() and, what did not fit there, into `spill`. True when it brought the pass
    // forward.
    bool take(const packet_info &packet, std::size_t packet_bytes, std::span<const std::byte> spill);

    // Bytes of the frames from one on, for messages.
    std::size_t bytes_of(std::uint32_t index, std::uint32_t count) const;

  private:
    std::size_t expected_bytes() const { return bytes_of(index_, 1); }
    std::size_t position() const { return index_ * shape_.frame_bytes + frame_bytes_; }
    void report(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void report_unusable(const packet_info &packet, std::size_t packet_bytes);
    bool skip_to(const packet_info &packet, std::span<const std::byte> spill);
    void check_start(const packet_info &packet);
    void check_end(const packet_info &packet);
    void end_frame();

    run_shape shape_;
    run_result &result_;
    std::vector<char> whole_;
    std::uint32_t index_ = 0, end_ = 0; // the expected frame of the run, and where the pass ends
    std::uint32_t packet_ = 0;          // the expected packet
    std::size_t frame_bytes_ = 0;       // what the expected frame has
    bool spoiled_ = false;              // it will not be whole
    bool gap_ = false;                  // packets are missing in it
    std::uint32_t previous_frame_ = 0, previous_packet_ = 0;
    int lines_ = 0;
};

} // namespace kestrel
