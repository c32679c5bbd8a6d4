// sim/card: a mini model's readout: the messages that it streams to one reader. Under the system's lock, but for
// readout_serve, which takes it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kestrel {

struct card;

inline constexpr std::uint32_t readout_scalers = 1, readout_histograms = 2, readout_events = 4;

// What waits to be sent to the reader.
struct readout_link {
    int readers = 0;
    bool started = false; // the reader has sent its word, the mode
    std::uint32_t mode = 0;
    std::uint32_t sequence = 0;
    bool too_slow = false;
    std::vector<std::uint8_t> waiting;
};

void readout_opened(card &c);
void readout_closed(card &c);

// The turn of a readout connection: takes the mode from what has arrived, gives what waits. False ends it.
bool readout_serve(card &c, std::vector<std::uint8_t> &in, std::vector<std::uint8_t> &out);

// Appends one message, in whole, and wakes the control thread.
void readout_send(card &c, std::uint32_t kind, std::uint32_t chan, std::uint32_t time_frame,
                  std::span<const std::uint8_t> payload);

} // namespace kestrel
