#include "sim/card/blast.h"

#include "sim/card/card.h"
#include "sim/card/frames.h"
#include "sim/card/packets.h"

#include <algorithm>
#include <mutex>
#include <thread>

namespace kestrel {

namespace {

// The frames of one channel, cut, and where they go.
struct stream {
    sockaddr_in to{};
    std::vector<std::uint32_t> words; // of all patterns
    std::vector<card_packet> packets;
    std::size_t packets_a_frame = 0;
};

bool prepare(card &c, int chan, stream &s, sockaddr_in &from) {
    const std::size_t words = frames_format(c, chan).words();
    if (words == 0 || !packets_ends(c, chan, from, s.to))
        return false;
    s.words.resize(words * blast_patterns);
    for (std::uint32_t frame = 0; frame < blast_patterns; ++frame) {
        for (std::uint32_t i = 0; i < words; ++i)
            s.words[frame * words + i] =
                pattern_word(static_cast<std::uint32_t>(c.index), static_cast<std::uint32_t>(chan), frame, i);
        std::vector<card_packet> cut;
        packets_cut({reinterpret_cast<const std::uint8_t *>(s.words.data() + frame * words), 4 * words},
                    packets_payload(c), frame, cut);
        s.packets_a_frame = cut.size();
        std::ranges::move(cut, std::back_inserter(s.packets));
    }
    return true;
}

// Numbers the frames from `first` on, which is a multiple of the patterns.
std::span<const card_packet> numbered(stream &s, std::uint32_t first, std::size_t frames) {
    for (std::size_t i = 0; i < frames * s.packets_a_frame; ++i)
        s.packets[i].trailer[0] = first + static_cast<std::uint32_t>(i / s.packets_a_frame);
    return std::span<const card_packet>(s.packets).first(frames * s.packets_a_frame);
}

void count(std::span<const card_packet> packets, std::size_t taken, blast_result &result) {
    for (const card_packet &p : packets.first(taken))
        result.bytes += p.bytes + trailer_bytes;
    result.packets += taken;
    result.unsent += packets.size() - taken;
}

} // namespace

blast_result blast(card &c, const blast_order &order, bool (*interrupted)()) {
    std::vector<stream> streams(static_cast<std::size_t>(order.channels));
    sockaddr_in from{};
    blast_result result;
    {
        std::lock_guard guard(cards.lock);
        for (std::size_t i = 0; i < streams.size(); ++i)
            result.known =
                result.known && prepare(c, order.first_chan + static_cast<int>(i), streams[i], from);
    }
    const unique_fd socket = datagrams_socket(from.sin_addr.s_addr, from.sin_port);
    result.known = result.known && socket;
    if (!result.known)
        return result;
    datagram_sender sender;
    const auto begin = card_clock::now();
    for (std::uint32_t done = 0; done < order.frames && !interrupted(); done += blast_patterns) {
        const std::size_t frames = std::min(blast_patterns, order.frames - done);
        for (stream &s : streams) {
            const std::span<const card_packet> packets = numbered(s, order.first_frame + done, frames);
            count(packets, sender.send(socket.get(), s.to, packets), result);
        }
        if (order.gigabits > 0)
            std::this_thread::sleep_until(
                begin + std::chrono::duration_cast<card_clock::duration>(std::chrono::duration<double>(
                            static_cast<double>(result.bytes) * 8e-9 / order.gigabits)));
    }
    result.seconds = std::chrono::duration<double>(card_clock::now() - begin).count();
    return result;
}

} // namespace kestrel
