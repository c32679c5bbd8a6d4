// sim/card: the two protocols of the control link. A request in, its answer out; neither knows of sockets. Both under
// the system's lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace kestrel {

struct card;

// Where the fields of an answer that a fault may spoil stand; -1: the protocol has no such field.
struct answer_layout {
    int magic, sequence, command, state, size, count;
    bool big_endian;
};

struct card_answer {
    std::vector<std::uint8_t> bytes;
    bool refused = false;
};

enum class take_result { incomplete, taken, malformed };

struct taken_request {
    take_result result = take_result::incomplete;
    std::size_t bytes = 0; // that it took of the input
};

struct wire_protocol {
    answer_layout layout;
    // The bus of the whole request at the front of what has arrived; nothing while it is not whole.
    std::optional<std::uint8_t> (*whole)(std::span<const std::uint8_t> in);
    // Takes one request from the front and carries it out; `refuse` answers no to whatever it is. After `malformed` (no
    // magic, an absurd size) nothing of the connection can be trusted.
    taken_request (*take)(card &c, std::span<const std::uint8_t> in, bool refuse, card_answer &answer);
};

extern const wire_protocol protocol1, protocol2;

inline constexpr std::uint32_t protocol_magic = 0xDEADBEEF;
inline constexpr std::uint8_t state_acknowledged = 0x20;
inline constexpr std::uint8_t state_refused = 0x40;
inline constexpr std::size_t largest_payload = 0x10000; // bytes of a request or an answer

// Bytes of an item of a width code; 0 for none.
constexpr std::uint32_t protocol_width(std::uint8_t code) {
    return code == 1 ? 1 : code == 2 ? 2 : code == 3 ? 4 : 0;
}

} // namespace kestrel
