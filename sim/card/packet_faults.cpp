#include "sim/card/packet_faults.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

packet_rules packet_faults;

namespace {

constexpr std::uint32_t number_mask = 0xfffffff;

// -1 fits all.
bool fits(int wanted, std::uint32_t is) {
    return wanted == -1 || static_cast<std::uint32_t>(wanted) == is;
}

// Faults of a whole frame ask no packet.
bool is_of_frame(packet_fault fault) {
    return fault >= packet_fault::lose_frame;
}

void cut_payload(card_packet &p, std::size_t less) {
    p.bytes -= std::min(p.bytes, less);
}

// Pad words, the last of which counts them.
void pad_payload(card_packet &p, std::size_t words, std::size_t largest) {
    words = std::min(words, (largest - std::min(largest, p.bytes)) / 4);
    if (words == 0)
        return;
    std::vector<std::uint8_t> own(p.bytes + 4 * words);
    std::memcpy(own.data(), p.payload, p.bytes);
    const auto count = static_cast<std::uint32_t>(words);
    std::memcpy(own.data() + own.size() - 4, &count, sizeof count);
    p.own = std::move(own);
    p.payload = p.own.data();
    p.bytes = p.own.size();
    p.trailer[1] |= trailer_padded;
}

card_packet copy_of(const card_packet &p) {
    card_packet copy = p;
    if (!copy.own.empty())
        copy.payload = copy.own.data();
    return copy;
}

void change(card_packet &p, const packet_rule &rule, std::size_t largest) {
    const auto argument = static_cast<std::uint32_t>(rule.argument);
    switch (rule.fault) {
    case packet_fault::cut:
        cut_payload(p, argument);
        break;
    case packet_fault::delay:
        p.delay = rule.argument;
        break;
    case packet_fault::frame_number:
        p.trailer[0] += argument;
        break;
    case packet_fault::packet_number:
        p.trailer[1] = (p.trailer[1] & ~number_mask) | ((p.trailer[1] + argument) & number_mask);
        break;
    case packet_fault::unmark:
        p.trailer[1] &= ~(trailer_start | trailer_end);
        break;
    case packet_fault::mark:
        p.trailer[1] |= trailer_start | trailer_end;
        break;
    case packet_fault::pad:
        pad_payload(p, argument, largest);
        break;
    default:
        break;
    }
}

card_packet nonsense(std::size_t bytes) {
    card_packet p;
    p.own.assign(bytes, 0x5a);
    p.payload = p.own.data();
    p.bytes = bytes;
    p.bare = true;
    return p;
}

} // namespace

int packet_usual_argument(packet_fault fault) {
    switch (fault) {
    case packet_fault::cut:
        return 8;
    case packet_fault::delay:
        return 50;
    case packet_fault::pad:
        return 2;
    case packet_fault::junk:
        return 20;
    default:
        return 1;
    }
}

bool packet_rules::used(packet_rule &rule) {
    if (rule.times == 0 || (rule.rate < 1.0 && random_.real() >= rule.rate))
        return false;
    if (rule.times > 0)
        --rule.times;
    return true;
}

void packet_rules::change_frame(packet_rule &rule, std::vector<card_packet> &packets, frame_fate &fate) {
    if (!used(rule))
        return;
    const std::size_t before = packets.size();
    switch (rule.fault) {
    case packet_fault::lose_frame:
        packets.clear();
        break;
    case packet_fault::lose_tail:
        packets.resize(std::min(before, static_cast<std::size_t>(rule.packet < 0 ? 1 : rule.packet)));
        break;
    case packet_fault::junk:
        packets.insert(packets.begin(), nonsense(static_cast<std::size_t>(std::max(rule.argument, 0))));
        break;
    default: // swap_frames
        fate.hold = true;
        break;
    }
    fate.withheld += before - std::min(before, packets.size());
}

// One packet; the index of the last one that it became (the one before it when it is gone).
std::size_t packet_rules::change_packet(const packet_rule &rule, std::size_t i, std::size_t largest,
                                        std::vector<card_packet> &packets, frame_fate &fate) {
    const auto at = packets.begin() + static_cast<std::ptrdiff_t>(i);
    switch (rule.fault) {
    case packet_fault::lose:
        packets.erase(at);
        ++fate.withheld;
        return i - 1;
    case packet_fault::repeat:
        packets.insert(at, copy_of(*at));
        return i + 1;
    case packet_fault::swap:
        std::swap(packets[i], packets[i + 1]);
        return i + 1;
    default:
        change(*at, rule, largest);
        return i;
    }
}

frame_fate packet_rules::apply(int card, int stream, std::uint32_t frame, std::size_t largest,
                               std::vector<card_packet> &packets) {
    frame_fate fate;
    for (packet_rule &rule : rules_) {
        if (!fits(rule.card, static_cast<std::uint32_t>(card)) ||
            !fits(rule.stream, static_cast<std::uint32_t>(stream)) || !fits(rule.frame, frame))
            continue;
        if (is_of_frame(rule.fault)) {
            change_frame(rule, packets, fate);
            continue;
        }
        for (std::size_t i = 0; i < packets.size(); ++i) { // `i` wraps below 0 for a moment
            const bool alone = rule.fault == packet_fault::swap && i + 1 == packets.size();
            if (!packets[i].bare && !alone && fits(rule.packet, packets[i].trailer[1] & number_mask) &&
                used(rule))
                i = change_packet(rule, i, largest, packets, fate);
        }
    }
    rules_.remove_if([](const packet_rule &rule) { return rule.times == 0; });
    return fate;
}

} // namespace kestrel
