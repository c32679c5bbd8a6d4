// Packets of the data link: a packet's payload never exceeds it, and a run made of any packets keeps to its buffer and
// its counts. The first byte has the card's feature and the run's shape; then come packets, each with its length (two
// bytes).
#include "pulsar3/lib/frames/run_receiver.h"
#include "pulsar3/lib/wire/error.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace kestrel;

namespace {

void expect(bool right) {
    if (!right)
        std::abort();
}

packet_info walk(std::span<const std::byte> packet, bool farm_mode) {
    const packet_info info = plr3_walk_packet(packet, farm_mode);
    expect(info.payload + trailer_bytes <= packet.size() || info.state == packet_state::no_trailer);
    expect(info.payload == 0 || info.state == packet_state::good);
    return info;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0)
        return 0;
    plr3_message_hook = [](int, std::string_view) {};
    const bool farm_mode = *data & 1;
    std::vector<std::byte> buffer(4 + 4 * (*data & 0x3EU));
    run_result result;
    run_receiver run({std::span(buffer), 1U + (*data >> 4) * 8U, 3, 0}, result);
    run.expect(0, run.frames());
    for (++data, --size; size >= 2;) {
        const std::size_t length = std::min<std::size_t>(data[0] + 256U * data[1], size - 2);
        const std::span packet(reinterpret_cast<const std::byte *>(data) + 2, length);
        const auto room = run.room();
        const std::size_t in_place = std::min(room.size(), length);
        if (in_place > 0)
            std::memcpy(room.data(), packet.data(), in_place);
        run.take(walk(packet, farm_mode), length, packet.subspan(in_place));
        data += 2 + length;
        size -= 2 + length;
    }
    run.end_pass();
    expect(result.frames <= static_cast<int>(run.frames()) && result.bytes <= buffer.size());
    expect((result.bytes == buffer.size()) == run.all_whole());
    return 0;
}
