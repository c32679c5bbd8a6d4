#include "pulsar3/lib/frames/run_receiver.h"

#include "pulsar3/lib/frames/udp.h"
#include "pulsar3/lib/wire/error.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace kestrel {

namespace {

constexpr int lines_max = 100; // of a run's errors; all are counted
constexpr std::size_t payload_max = udp_packet_max - trailer_bytes;

} // namespace

run_receiver::run_receiver(const run_shape &shape, run_result &result)
    : shape_(shape), result_(result),
      whole_((shape.buffer.size() + shape.frame_bytes - 1) / shape.frame_bytes, 0) {}

void run_receiver::expect(std::uint32_t first_index, std::uint32_t count) {
    index_ = first_index;
    end_ = first_index + count;
    packet_ = 0;
    frame_bytes_ = 0;
    spoiled_ = gap_ = false;
}

void run_receiver::end_pass() {
    result_.lost_frames += static_cast<int>(end_ - index_);
    end_ = index_;
}

std::size_t run_receiver::bytes_of(std::uint32_t index, std::uint32_t count) const {
    const std::size_t begin = std::min(index * shape_.frame_bytes, shape_.buffer.size());
    return std::min(count * shape_.frame_bytes, shape_.buffer.size() - begin);
}

std::span<std::byte> run_receiver::room() const {
    const std::size_t left = expected_bytes() - std::min(frame_bytes_, expected_bytes());
    return shape_.buffer.subspan(std::min(position(), shape_.buffer.size()), std::min(left, payload_max));
}

void run_receiver::report(const char *format, ...) {
    ++result_.errors;
    if (++lines_ > lines_max)
        return;
    char text[256];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    plr3_message(shape_.message_to, "%s", text);
}

void run_receiver::report_unusable(const packet_info &packet, std::size_t packet_bytes) {
    if (packet.state == packet_state::negative_pads)
        report("Negative pad words = %d ???\n", packet.pad_words);
    else if (packet.state == packet_state::all_pads)
        report("pad_words=%d consumes enire packet=%zu bytes\n", packet.pad_words, packet_bytes);
    else
        report("Packet of %zu bytes has no trailer\n", packet_bytes);
}

bool run_receiver::take(const packet_info &packet, std::size_t packet_bytes,
                        std::span<const std::byte> spill) {
    ++result_.packets;
    if (packet.state != packet_state::good)
        report_unusable(packet, packet_bytes);
    if (packet.state == packet_state::no_trailer || done())
        return false;
    const std::uint32_t index = packet.frame - shape_.first_frame;
    if ((index != index_ || packet.packet != packet_) && !skip_to(packet, spill))
        return false;
    spoiled_ = spoiled_ || packet.state != packet_state::good;
    check_start(packet);
    frame_bytes_ += packet.payload;
    previous_frame_ = packet.frame;
    previous_packet_ = packet.packet;
    ++packet_;
    check_end(packet);
    return packet.payload > 0 || packet.ends;
}

// Not the expected packet. What is older than expected, or beyond the pass, is left aside; what is ahead becomes the
// expected one, and what lies between is lost.
bool run_receiver::skip_to(const packet_info &packet, std::span<const std::byte> spill) {
    const std::uint32_t index = packet.frame - shape_.first_frame;
    report(
        "Unexpected frame/packet at byte %d, expected frame=%d, packet=%d, received =%d, %d, previous %d, %d\n",
        static_cast<int>(position()), static_cast<int>(shape_.first_frame + index_),
        static_cast<int>(packet_), static_cast<int>(packet.frame), static_cast<int>(packet.packet),
        static_cast<int>(previous_frame_), static_cast<int>(previous_packet_));
    const bool older = index < index_ || (index == index_ && packet.packet < packet_);
    if (older || index >= end_)
        return false;
    const auto from = room();
    if (index != index_) {
        result_.lost_frames += static_cast<int>(index - index_);
        expect(index, end_ - index);
    }
    if (packet.packet != packet_) {
        result_.lost_packets += static_cast<int>(packet.packet - packet_);
        spoiled_ = gap_ = true;
        packet_ = packet.packet;
    }
    const auto to = room();
    if (to.data() != from.data()) {
        const std::size_t here = std::min({packet.payload, from.size(), to.size()});
        std::memmove(to.data(), from.data(), here);
        const std::size_t rest = std::min({packet.payload - here, spill.size(), to.size() - here});
        std::memcpy(to.data() + here, spill.data(), rest);
    }
    return true;
}

void run_receiver::check_start(const packet_info &packet) {
    const bool first = packet.packet == 0;
    if (packet.starts == first)
        return;
    spoiled_ = true;
    if (first)
        report("First packet of expected_frame %d does not have start of frame bit set, byte_read = %zu\n",
               static_cast<int>(packet.frame), position());
    else
        report("Unexpected start of frame at byte %d, frame=%d, packet=%d, expected %d, %d\n",
               static_cast<int>(position()), static_cast<int>(packet.frame), static_cast<int>(packet.packet),
               static_cast<int>(shape_.first_frame + index_), static_cast<int>(packet_));
}

// Where packets are missing, that the frame ends short says nothing new.
void run_receiver::check_end(const packet_info &packet) {
    const bool full = frame_bytes_ >= expected_bytes();
    if (packet.ends && frame_bytes_ != expected_bytes() && !gap_) {
        spoiled_ = true;
        report("Unexpected End of Frame at byte %u, frame=%d, packet=%d, bytes_this_frame=%u, "
               "expected_bytes_this_frame=%u\n",
               static_cast<unsigned>(position()), static_cast<int>(packet.frame),
               static_cast<int>(packet.packet), static_cast<unsigned>(frame_bytes_),
               static_cast<unsigned>(expected_bytes()));
    } else if (!packet.ends && full) {
        spoiled_ = true;
        report("Missing End of Frame at byte %d, frame=%d, packet=%d\n", static_cast<int>(position()),
               static_cast<int>(packet.frame), static_cast<int>(packet.packet));
    }
    if (packet.ends || full)
        end_frame();
}

void run_receiver::end_frame() {
    if (!spoiled_ && !is_whole(index_)) {
        whole_[index_] = 1;
        ++result_.frames;
        result_.bytes += expected_bytes();
    }
    expect(index_ + 1, end_ - index_ - 1);
}

} // namespace kestrel
