// stream: what the publisher's two threads share: the runs, and the ring of their frames. The watcher puts frames in as
// they become final, the sender takes them out; neither waits for the other.
#pragma once

#include "stream/frame_ring.h"
#include "stream/run_seen.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel::stream {

struct run_lane {
    frame_ring::lane_number number = 0;
    int card = -1;      // -1: the scalers of all cards
    std::string stream; // its key, with the prefix
    std::deque<bool>
        known; // whether the frames that the broker knew before us were lost: those that wait next
};

struct published_run {
    std::string id;
    std::int64_t begun_us = 0;
    std::vector<card_shape> cards;
    std::string settings;
    std::vector<run_lane> lanes; // a card each, then the scalers

    // The watcher's:
    bool over = false; // every frame that there will be has been acquired
    bool cut = false;  // another run began before that was certain: nothing more comes
    // The sender's:
    std::uint64_t epoch = 0; // 0: not announced
    std::string gaps;        // that it was announced with
    std::string entry;       // its place in the list of runs, where we know it
    bool sealed = false;
};

struct publication {
    explicit publication(std::size_t room) : ring(room) {}

    std::mutex mutex; // guards all of it
    std::condition_variable news;
    std::uint64_t changes = 0; // told by it
    frame_ring ring;
    std::deque<std::shared_ptr<published_run>> runs;
    frame_account before; // of runs that are no longer here
    bool looked = false;  // the watcher has seen what there is
    bool ending = false;

    // What is told of the sender.
    struct {
        bool connected = false;
        std::string cause;
        std::uint64_t connections = 0, epochs = 0;
        std::size_t bytes = 0, budget = 0;
    } broker;

    void changed() {
        ++changes;
        news.notify_all();
    }

    // Frames of all cards; the scalers' are not among them. The mutex is held for these four.
    frame_account total() const;
    frame_account total(const published_run &run) const;
    // Of its scalers, too, nothing waits.
    bool is_told(const published_run &run) const;
};

// Follows the runs of this machine until the publication is ending.
void watch_runs(publication &p, const std::string &prefix);

} // namespace kestrel::stream
