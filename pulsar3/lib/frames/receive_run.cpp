#include "pulsar3/lib/frames/receive_run.h"

#include "pulsar3/lib/wire/error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

namespace kestrel {

namespace {

using clock = std::chrono::steady_clock;

constexpr std::chrono::seconds pause_max{2}; // between packets of a run that has begun: more means loss
constexpr int resend_rounds = 3;

// The last bytes of a packet that lies in two pieces.
std::span<const std::byte> tail_of(std::span<const std::byte> begin, std::span<const std::byte> rest,
                                   std::array<std::byte, packet_tail_bytes> &tail) {
    const std::size_t from_rest = std::min(rest.size(), tail.size());
    const std::size_t from_begin = std::min(begin.size(), tail.size() - from_rest);
    const auto begin_end = begin.last(from_begin), rest_end = rest.last(from_rest);
    std::copy(begin_end.begin(), begin_end.end(), tail.begin());
    std::copy(rest_end.begin(), rest_end.end(), tail.begin() + static_cast<std::ptrdiff_t>(from_begin));
    return std::span(tail).first(from_begin + from_rest);
}

class run_reader {
  public:
    run_reader(UDPconnection &connection, const run_request &run, run_receiver &receiver)
        : connection_(connection), run_(run), receiver_(receiver) {}

    // Receives until the pass is done or nothing more comes. 0, or a status with its text.
    int receive_pass() {
        deadline_ = clock::now() + std::chrono::seconds(connection_.timeout);
        while (!receiver_.done()) {
            if (plr3_interrupted())
                return plr3_fail(plr3_failed, "plr3_read_data_10g_receive: Interrupted");
            const received what = receive_packet();
            if (what == received::error)
                return plr3_fail(plr3_failed, "Read socket error (UDP).");
            if (what == received::progress)
                deadline_ = clock::now() + std::min(pause_max, std::chrono::seconds(connection_.timeout));
            else if (clock::now() >= deadline_)
                receiver_.end_pass();
        }
        return 0;
    }

    // Each stretch of frames that are not whole is asked for again and received.
    int resend() {
        for (std::uint32_t first = 0; first < receiver_.frames();) {
            std::uint32_t end = first;
            while (end < receiver_.frames() && !receiver_.is_whole(end))
                ++end;
            if (end != first)
                if (const int rc = resend(first, end - first))
                    return rc;
            first = end + 1;
        }
        return 0;
    }

  private:
    enum class received { progress, nothing_new, error };

    int resend(std::uint32_t first, std::uint32_t count) {
        plr3_message(run_.shape.message_to, "Trying to resend frames %d for %d => %u bytes\n",
                     static_cast<int>(first), static_cast<int>(count),
                     static_cast<unsigned>(receiver_.bytes_of(first, count)));
        receiver_.expect(first, count);
        if (const int rc = run_.resend(run_.shape.first_frame + first, count))
            return rc;
        return receive_pass();
    }

    received receive_packet() {
        const auto room = receiver_.room();
        std::array<iovec, 2> parts{{{room.data(), room.size()}, {spill_.data(), spill_.size()}}};
        const ssize_t got = plr3_udp_receive(connection_, parts);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
            return received::nothing_new;
        if (got < 0) {
            plr3_message(run_.shape.message_to, "Read returns error %zd, errno=%d\n", got, errno);
            return received::error;
        }
        const auto bytes = static_cast<std::size_t>(got);
        if (bytes > room.size() + spill_.size())
            return receiver_.take({}, bytes, {}) ? received::progress : received::nothing_new;
        const std::size_t in_place = std::min(bytes, room.size());
        return take(bytes, room.first(in_place), std::span(spill_).first(bytes - in_place));
    }

    received take(std::size_t bytes, std::span<const std::byte> in_place, std::span<const std::byte> spill) {
        std::array<std::byte, packet_tail_bytes> tail;
        const packet_info packet = plr3_walk_tail(tail_of(in_place, spill, tail), bytes, run_.farm_mode);
        return receiver_.take(packet, bytes, spill) ? received::progress : received::nothing_new;
    }

    UDPconnection &connection_;
    const run_request &run_;
    run_receiver &receiver_;
    clock::time_point deadline_;
    std::array<std::byte, udp_packet_max> spill_;
};

int receive_all(UDPconnection &connection, const run_request &run, run_receiver &receiver) {
    run_reader reader(connection, run, receiver);
    receiver.expect(0, receiver.frames());
    int rc = reader.receive_pass();
    for (int round = 0; rc == 0 && run.resend && !receiver.all_whole() && round < resend_rounds; ++round)
        rc = reader.resend();
    return rc;
}

} // namespace

int plr3_read_data_10g_receive(UDPconnection &connection, const run_request &run, run_result &result) {
    result = {};
    const std::size_t bytes = run.shape.buffer.size();
    if (bytes == 0)
        return 0;
    if (run.shape.frame_bytes == 0 || bytes / run.shape.frame_bytes >= std::numeric_limits<int>::max())
        return plr3_fail(plr3_failed, "plr3_read_data_10g_receive: %zu bytes in frames of %zu bytes", bytes,
                         run.shape.frame_bytes);
    const auto begin = clock::now();
    run_receiver receiver(run.shape, result);
    const int rc = receive_all(connection, run, receiver);
    connection.recvLoss += result.lost_packets;
    connection.elapsedTime += static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(clock::now() - begin).count());
    if (run.debug > 0)
        plr3_message(
            run.shape.message_to,
            "Received %u of %u bytes with %d errors, in %d packets in %d frames, lost %d packets and %d frames\n",
            static_cast<unsigned>(result.bytes), static_cast<unsigned>(bytes), result.errors, result.packets,
            result.frames, result.lost_packets, result.lost_frames);
    if (rc == 0 && !receiver.all_whole())
        return plr3_fail(plr3_failed, "plr3_read_data_10g_receive: %d of %u frames are whole", result.frames,
                         receiver.frames());
    return rc;
}

} // namespace kestrel
