#include "sim/card/control_faults.h"

#include "sim/card/protocol.h"

namespace kestrel {

control_rules control_faults;

namespace {

void put(std::vector<std::uint8_t> &bytes, const answer_layout &layout, int at, std::uint32_t value) {
    const auto first = static_cast<std::size_t>(at);
    if (at < 0 || first + 4 > bytes.size())
        return;
    for (std::size_t i = 0; i < 4; ++i)
        bytes[first + i] = static_cast<std::uint8_t>(value >> 8 * (layout.big_endian ? 3 - i : i));
}

std::uint32_t get(const std::vector<std::uint8_t> &bytes, const answer_layout &layout, int at) {
    const auto first = static_cast<std::size_t>(at);
    std::uint32_t value = 0;
    for (std::size_t i = 0; at >= 0 && i < 4 && first + i < bytes.size(); ++i)
        value |= static_cast<std::uint32_t>(bytes[first + i]) << 8 * (layout.big_endian ? 3 - i : i);
    return value;
}

} // namespace

int control_usual_argument(control_fault fault) {
    switch (fault) {
    case control_fault::stall:
        return 1000;
    case control_fault::size:
        return 1024;
    case control_fault::cut:
        return 7;
    case control_fault::stale:
        return 40;
    default:
        return 1;
    }
}

const control_rule *control_rules::next(int card, int bus) {
    for (auto rule = rules_.begin(); rule != rules_.end(); ++rule) {
        if ((rule->card != -1 && rule->card != card) || (rule->bus != -1 && rule->bus != bus))
            continue;
        if (rule->skip > 0) {
            --rule->skip;
            continue;
        }
        used_ = *rule;
        if (rule->times > 0 && --rule->times == 0)
            rules_.erase(rule);
        return &used_;
    }
    return nullptr;
}

void control_spoil(const control_rule &rule, const answer_layout &layout, std::vector<std::uint8_t> &bytes) {
    const auto argument = static_cast<std::uint32_t>(rule.argument);
    switch (rule.fault) {
    case control_fault::magic:
        put(bytes, layout, layout.magic, ~protocol_magic);
        break;
    case control_fault::sequence:
        put(bytes, layout, layout.sequence, get(bytes, layout, layout.sequence) + argument);
        break;
    case control_fault::command:
        bytes[static_cast<std::size_t>(layout.command)] ^= 0x0f;
        break;
    case control_fault::count:
        put(bytes, layout, layout.count, get(bytes, layout, layout.count) + argument);
        break;
    case control_fault::state:
        bytes[static_cast<std::size_t>(layout.state)] = static_cast<std::uint8_t>(argument);
        break;
    case control_fault::size:
        put(bytes, layout, layout.size, argument);
        break;
    default:
        break;
    }
}

} // namespace kestrel
