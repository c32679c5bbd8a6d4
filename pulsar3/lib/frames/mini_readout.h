// pulsar3/lib/frames: the readout connection of a mini model, over which it sends what it has counted: scalers, whole
// histogram frames, or events, which are histogrammed here. One thread a card; it sleeps until something comes.
//
// A message is a header of six words and its payload. One that does not fit what the card was set up for ends the
// connection: nothing behind it could be trusted.
#pragma once

#include "pulsar3/lib/frames/histogram.h"
#include "pulsar3/lib/frames/list_mode.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <netinet/in.h>
#include <span>
#include <vector>

namespace kestrel {

inline constexpr int mini_scalers_a_channel = 9;

// Where a card's scalers go: of a time frame, one channel's after the other.
struct scaler_area {
    std::span<std::uint32_t> words;
    std::span<std::uint32_t> status; // a word a channel and time frame
    std::size_t channels = 0;
    bool circular = false;
};

struct mini_readout {
    in_addr address{};
    int port = 0;
    std::uint32_t mode = 0;
    std::atomic<int> message_to{-1};
    std::vector<Histogram *> channels;

    fair_mutex mutex; // guards the area and the file
    scaler_area scalers;
    std::shared_ptr<list_mode_file> list_mode_fd; // that takes the events, too; null: none
    std::uint32_t first_chan = 0;                 // the card's first channel in the system

    unique_fd socket, wake;
    std::atomic<bool> ending{false}, failed{false}, waiting{false}; // waiting: for a message, with none begun
    std::thread thread;

    mini_readout() = default;
    mini_readout(const mini_readout &) = delete;
    mini_readout &operator=(const mini_readout &) = delete;
    ~mini_readout();
};

// Connects, tells the card the mode and starts the thread; what was open before is closed. 0, or a status with its
// text.
int plr3_readout_start(mini_readout &readout);
void plr3_readout_stop(mini_readout &readout);
// Waits until what the card has sent so far has been taken, at most a fifth of a second.
void plr3_readout_quiet(mini_readout &readout);

} // namespace kestrel
