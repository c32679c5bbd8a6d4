// sim/card: what is to go wrong with answers of the control link. Under the system's lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kestrel {

enum class control_fault {
    refuse,   // answers no, and does nothing
    drop,     // does it, and never answers
    close,    // closes the connection instead of doing anything
    stall,    // answers `argument` milliseconds late; nothing else of the connection moves meanwhile
    magic,    // wrong magic in the answer
    sequence, // its sequence `argument` too large
    command,  // the code of another command
    count,    // `argument` more items than were asked for
    state,    // `argument` as the state
    size,     // `argument` as the payload's bytes
    cut,      // only the first `argument` bytes, then the connection closes
    split,    // byte by byte
    stale,    // `argument` bytes of nonsense behind it
};

int control_usual_argument(control_fault fault);

struct control_rule {
    control_fault fault;
    int card;  // position in the system, -1 for any
    int bus;   // -1 for any
    int skip;  // requests to leave alone first
    int times; // then so many; -1 for ever
    int argument;
};

class control_rules {
  public:
    void add(const control_rule &rule) { rules_.push_back(rule); }
    void clear() { rules_.clear(); }
    std::size_t size() const { return rules_.size(); }
    // The rule that holds for this request, counted as used; null when none does. Valid until the next call.
    const control_rule *next(int card, int bus);

  private:
    std::vector<control_rule> rules_;
    control_rule used_{};
};

struct answer_layout;

// Spoils the bytes of an answer as the rule says (magic to size).
void control_spoil(const control_rule &rule, const answer_layout &layout, std::vector<std::uint8_t> &bytes);

extern control_rules control_faults;

} // namespace kestrel
