// sim/card: faults of the data link.
#include "parser/qualifiers.h"
#include "server/interrupt.h"
#include "server/output.h"
#include "sim/card/blast.h"
#include "sim/card/commands.h"

#include <arpa/inet.h>
#include <mutex>
#include <optional>

namespace kestrel {

namespace {

constexpr pt_format
    fault_format("%d %d lose repeat swap cut delay frame-number packet-number unmark mark pad lose-frame "
                 "lose-tail swap-frames junk frame %d packet %d times %d rate %g argument %d = %d");
using fault_words = pt_qualifiers<fault_format>;
constexpr fault_words::choice<packet_fault> faults[] = {
    {"lose", packet_fault::lose},
    {"repeat", packet_fault::repeat},
    {"swap", packet_fault::swap},
    {"cut", packet_fault::cut},
    {"delay", packet_fault::delay},
    {"frame-number", packet_fault::frame_number},
    {"packet-number", packet_fault::packet_number},
    {"unmark", packet_fault::unmark},
    {"mark", packet_fault::mark},
    {"pad", packet_fault::pad},
    {"lose-frame", packet_fault::lose_frame},
    {"lose-tail", packet_fault::lose_tail},
    {"swap-frames", packet_fault::swap_frames},
    {"junk", packet_fault::junk},
};

int fault(int quals, int cn, int position, int stream) {
    const fault_words q(quals);
    const std::optional<packet_fault> kind = q.only(faults);
    if (!kind) {
        sv_printf(cn, "! Please give one fault\n");
        return -1;
    }
    if (position != -1 && !commands_card(cn, position))
        return -1;
    if (stream < -1 || stream > scope_stream) {
        sv_printf(cn, "! Stream %d is not in -1..%d\n", stream, scope_stream);
        return -1;
    }
    packet_rule rule{};
    rule.fault = *kind;
    rule.card = position;
    rule.stream = stream;
    rule.frame = q.number("frame", -1);
    rule.packet = q.number("packet", -1);
    rule.times = q.number("times", q.given("rate") ? -1 : 1);
    rule.rate = q.real("rate", 1.0);
    rule.argument = q.number("argument", packet_usual_argument(*kind));
    std::lock_guard guard(cards.lock);
    packet_faults.add(rule);
    return 0;
}

int no_faults(int, int) {
    std::lock_guard guard(cards.lock);
    packet_faults.clear();
    return 0;
}

int waiting(int, int) {
    std::lock_guard guard(cards.lock);
    return static_cast<int>(packet_faults.size());
}

// A datagram that looks right, from an address that is not the card's.
int foreign(int, int cn, int position, int stream, int bytes) {
    card *c = commands_card(cn, position);
    if (!c)
        return -1;
    sockaddr_in from{}, to{};
    std::lock_guard guard(cards.lock);
    const bool known = packets_ends(*c, stream, from, to);
    const unique_fd socket = datagrams_socket(known ? to.sin_addr.s_addr : 0, 0);
    if (!known || !socket || bytes < 0 || bytes > 9000) {
        sv_printf(cn, "! Card %d does not know where stream %d goes\n", position, stream);
        return -1;
    }
    const std::vector<std::uint8_t> data(static_cast<std::size_t>(bytes), 0xa5);
    std::vector<card_packet> packets;
    packets_cut(data, data.size() + 1, c->next_frame, packets);
    datagram_sender sender;
    return static_cast<int>(sender.send(socket.get(), to, packets));
}

constexpr pt_format blast_format("%d %d %d channels %d first %d gigabits %g = %g");

// Gigabits a second.
double send_blast(int quals, int cn, int position, int chan, int frames) {
    const pt_qualifiers<blast_format> q(quals);
    const int channels = q.number("channels", 1), first = q.number("first", 0);
    card *c = commands_channel(cn, position, chan);
    if (!c)
        return -1.0;
    if (channels < 1 || channels > c->channels - chan || frames < 0 || first < 0) {
        sv_printf(cn, "! Cannot send %d frames from %d on of %d channels\n", frames, first, channels);
        return -1.0;
    }
    const blast_order order = {chan, channels, static_cast<std::uint32_t>(first),
                               static_cast<std::uint32_t>(frames), q.real("gigabits")};
    sv_flush_all(cn);
    const blast_result r = blast(*c, order, [] { return sv_quit != 0; });
    if (!r.known) {
        sv_printf(cn, "! Card %d does not know where channel %d goes\n", position, chan);
        return -1.0;
    }
    const double rate = r.seconds > 0 ? static_cast<double>(r.bytes) * 8e-9 / r.seconds : 0.0;
    sv_printf(cn, "# %llu packets, %llu bytes in %g s, %llu not sent\n",
              static_cast<unsigned long long>(r.packets), static_cast<unsigned long long>(r.bytes), r.seconds,
              static_cast<unsigned long long>(r.unsent));
    return rate;
}

} // namespace

constinit const PARSE_TREE commands_packets[] = {
    pt_command<fault>(
        "fault", fault_format, "spoil packets",
        "Card, -1 for any/Channel, 16 for scope data, -1 for any/not sent/sent twice/"
        "sent after the next one of the frame/payload shorter/sent later/wrong frame number/"
        "wrong packet number/no start and end bits/start and end bits/pad words at the end/"
        "the whole frame not sent/not sent from the packet on/"
        "sent after the channel's next frame/nonsense before the frame/"
        "only of this frame/only this packet/how often (1, with a rate -1), -1 for ever/"
        "part of those that fit (1)/bytes, milliseconds, words or difference, as the fault needs it"),
    pt_command<no_faults>("no-faults", "= %d", "forget the faults that wait", ""),
    pt_command<waiting>("waiting", "= %d", "count the faults that wait", ""),
    pt_command<foreign>("foreign", "%d %d %d = %d", "send a datagram from an address that is not the card's",
                        "Card/Channel, 16 for scope data/Bytes of payload"),
    pt_command<send_blast>(
        "blast", blast_format,
        "send prepared frames of the known pattern (of the frame's number modulo 16) at full speed",
        "Card/First channel/Frames a channel/channels (1)/number of the first frame (0)/"
        "gigabits a second at most"),
    pt_end(),
};

} // namespace kestrel
