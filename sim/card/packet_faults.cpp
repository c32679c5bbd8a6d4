#include "sim/card/packet_faults.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

packet_rules packet_faults;

namespace {

constexpr std::uint32_t number_mask = 0xfffffff;

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

frame_fate packet_rules::apply(int card, int stream, std::uint32_t frame, std::size_t largest,
                               std::vector<card_packet> &packets) {
    frame_fate fate;
    const auto fits = [](int wanted, std::uint32_t is) {
        return wanted == -1 || static_cast<std::uint32_t>(wanted) == is;
    };
    for (packet_rule &rule : rules_) {
        if (!fits(rule.card, static_cast<std::uint32_t>(card)) ||
            !fits(rule.stream, static_cast<std::uint32_t>(stream)) || !fits(rule.frame, frame))
            continue;
        if (is_of_frame(rule.fault)) {
            if (!used(rule))
                continue;
            const std::size_t before = packets.size();
            if (rule.fault == packet_fault::lose_frame)
                packets.clear();
            else if (rule.fault == packet_fault::lose_tail)
                packets.resize(std::min(before, static_cast<std::size_t>(rule.packet < 0 ? 1 : rule.packet)));
            else if (rule.fault == packet_fault::junk)
                packets.insert(packets.begin(),
                               nonsense(static_cast<std::size_t>(std::max(rule.argument, 0))));
            else
                fate.hold = true;
            fate.withheld += before - std::min(before, packets.size());
            continue;
        }
        for (std::size_t i = 0; i < packets.size(); ++i) {
            const bool last = i + 1 == packets.size();
            if (packets[i].bare || !fits(rule.packet, packets[i].trailer[1] & number_mask) ||
                (rule.fault == packet_fault::swap && last) || !used(rule))
                continue;
            const auto at = packets.begin() + static_cast<std::ptrdiff_t>(i);
            if (rule.fault == packet_fault::lose) {
                packets.erase(at);
                ++fate.withheld;
                --i;
            } else if (rule.fault == packet_fault::repeat) {
                packets.insert(at, copy_of(*at));
                ++i;
            } else if (rule.fault == packet_fault::swap) {
                std::swap(packets[i], packets[i + 1]);
                ++i;
            } else {
                change(*at, rule, largest);
            }
        }
    }
    rules_.remove_if([](const packet_rule &rule) { return rule.times == 0; });
    return fate;
}

} // namespace kestrel
