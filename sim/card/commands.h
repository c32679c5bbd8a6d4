// sim/card: the commands of the text port, one table a file. Command thread.
#pragma once

#include "parser/tree.h"
#include "sim/card/card.h"

namespace kestrel {

extern const PARSE_TREE commands_state[];   // registers, memory, what was seen and counted
extern const PARSE_TREE commands_control[]; // faults of the control link, power

extern const PARSE_TREE commands_events[];  // what the detectors see, and what was made of it
extern const PARSE_TREE commands_packets[]; // faults of the data link
extern const PARSE_TREE commands_gate[];    // the timing unit
extern const PARSE_TREE commands_frame[];

// The card at this position of the system; null after a line when there is none.
card *commands_card(int cn, int position);

// The same for a channel of it.
card *commands_channel(int cn, int position, int chan);

// f(card) for each card, or for the one at this position; f(card, channel) for each channel or one. -1 means all. False
// after a line when there is no such one.
template <class F> bool commands_each(int cn, int position, F f) {
    if (position != -1 && !commands_card(cn, position))
        return false;
    for (std::size_t i = 0; i < cards.cards.size(); ++i) {
        if (position == -1 || position == static_cast<int>(i))
            f(*cards.cards[i]);
    }
    return true;
}
template <class F> bool commands_each_channel(int cn, int position, int chan, F f) {
    if (chan != -1 && !commands_channel(cn, position == -1 ? 0 : position, chan))
        return false;
    return commands_each(cn, position, [&](card &c) {
        for (int i = 0; i < c.channels; ++i) {
            if (chan == -1 || chan == i)
                f(c, i);
        }
    });
}

} // namespace kestrel
