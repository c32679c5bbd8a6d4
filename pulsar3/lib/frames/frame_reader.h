// pulsar3/lib/frames: brings the packets of a channel's socket to where its frames lie. Packets are received in place:
// for each one that is expected next, the payload's bytes go to its place and the trailer's beside. What the kernel has
// merged (GRO) is laid out the same way, packet after packet. Whatever comes otherwise than foreseen is taken up again
// and put where it belongs.
#pragma once

#include "pulsar3/lib/frames/frame_assembler.h"
#include "pulsar3/lib/frames/udp.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/socket.h>
#include <vector>

namespace kestrel {

// Asks the kernel to merge packets and to tell what it drops, where it can.
void plr3_prepare_reader_socket(int fd);

// Datagrams that the kernel dropped at this socket since it was opened, a count that wraps.
std::uint32_t plr3_socket_drops(int fd);

class frame_reader {
  public:
    frame_reader();

    enum class got {
        nothing,
        some,
        more,
        error
    }; // more: there may be further packets waiting; error: see errno

    // Takes what has come, up to so many merged packets, without waiting.
    got receive(UDPconnection &connection, frame_assembler &frames);
    // Throws away what has come. False on an error.
    static bool drain(int fd);

  private:
    static constexpr std::size_t batch_ = 16;             // messages a call
    static constexpr std::size_t merged_max_ = 7;         // packets of 9000 bytes in one message
    static constexpr std::size_t message_max_ = 1U << 16; // bytes of one message

    struct message {
        std::size_t slots = 0;
        std::array<frame_assembler::slot, merged_max_> slot;
        std::array<std::array<std::byte, trailer_bytes>, merged_max_> trailer;
        std::array<iovec, 2 * merged_max_ + 1> parts;
    };
    struct alignas(cmsghdr) control_space {
        char bytes[CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(std::uint32_t))];
    };

    std::size_t lay_out(frame_assembler &frames); // how many messages
    std::size_t
    merged_size(std::size_t i) const; // bytes of the packets of a message that was received, but the last
    bool take_in_place(std::size_t i, frame_assembler &frames, std::size_t &taken);
    void take_up(std::size_t first, std::size_t taken, std::size_t count, frame_assembler &frames);
    void gather(std::size_t i, std::vector<std::byte> &bytes);

    std::array<message, batch_> messages_;
    std::array<mmsghdr, batch_> headers_{};
    std::array<control_space, batch_> controls_;
    std::unique_ptr<std::byte[]> spill_; // message_max_ bytes a message, touched only where it is needed
    std::size_t merged_ = merged_max_;   // packets that messages were seen to hold
    // Messages asked for at once: one after something came otherwise than foreseen, so that a stretch with losses costs
    // little copying, then more and more.
    std::size_t wanted_ = batch_;
    std::vector<std::byte> taken_up_; // for take_up, kept
    std::vector<std::size_t> sizes_;
};

} // namespace kestrel
