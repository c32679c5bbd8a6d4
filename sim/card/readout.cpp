#include "sim/card/readout.h"

#include "sim/card/card.h"
#include "sim/card/control.h"

#include <cstring>
#include <mutex>

namespace kestrel {

namespace {

constexpr std::uint32_t message_magic = 0x334D4C50;
constexpr std::size_t waiting_max = std::size_t{256} << 20; // bytes; a reader this late loses its connection

} // namespace

void readout_opened(card &c) {
    const int readers = c.readout.readers + 1;
    c.readout = {};
    c.readout.readers = readers;
}

void readout_closed(card &c) {
    if (--c.readout.readers == 0)
        c.readout = {};
}

bool readout_serve(card &c, std::vector<std::uint8_t> &in, std::vector<std::uint8_t> &out) {
    std::lock_guard guard(cards.lock);
    readout_link &link = c.readout;
    if (in.size() >= 4) {
        std::memcpy(&link.mode, in.data(), sizeof link.mode);
        in.erase(in.begin(), in.begin() + 4);
        link.started = true;
        c.words(card_target::readout_mode).set(0, link.mode);
    }
    out.insert(out.end(), link.waiting.begin(), link.waiting.end());
    link.waiting.clear();
    return !link.too_slow;
}

void readout_send(card &c, std::uint32_t kind, std::uint32_t chan, std::uint32_t time_frame,
                  std::span<const std::uint8_t> payload) {
    readout_link &link = c.readout;
    if (!link.started || !(link.mode & kind))
        return;
    const std::uint32_t header[] = {
        message_magic, kind, chan, time_frame, static_cast<std::uint32_t>(payload.size()), link.sequence++,
    };
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(header);
    link.waiting.insert(link.waiting.end(), bytes, bytes + sizeof header);
    link.waiting.insert(link.waiting.end(), payload.begin(), payload.end());
    link.too_slow = link.waiting.size() > waiting_max;
    control_wake();
}

} // namespace kestrel
