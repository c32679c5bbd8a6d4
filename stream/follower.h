// stream: the other end of a publisher: a run's frames from the broker into modules of this machine. One thread.
#pragma once

#include "stream/broker.h"
#include "stream/entries.h"
#include "stream/follow_modules.h"

#include <atomic>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel::stream {

struct follow_options {
    bool all = false; // every frame, in order; else the newest only
    std::string rename;
};

// Of all runs: acquired = received + lost + skipped, where a run has ended; skipped by -live alone.
struct follow_account {
    std::uint64_t acquired = 0, received = 0, lost = 0, skipped = 0;
};

// What others may look at.
struct follow_state {
    std::mutex mutex;
    std::string run, cause; // the last run; why there is no connection
    bool connected = false;
    std::uint64_t epoch = 0, resyncs = 0;
    follow_account account;
    std::atomic<bool> ending{false};
};

// A line on standard output.
void follower_says(const std::string &line);

class follower {
  public:
    follower(broker_site site, const follow_options &options, follow_state &state)
        : broker_(std::move(site)), options_(options), state_(state) {}
    void follow_until_end();

  private:
    struct announced_run {
        std::string id, cards, shapes;
        std::uint64_t epoch = 0;
    };
    struct followed_stream {
        followed_card card;
        std::string key;
        std::uint64_t next = 0;                     // frame
        std::uint64_t lost_first = 0, lost_end = 0; // lost ones that have not been told
    };
    struct header {
        std::uint64_t frame = 0;
        std::string key, status, missing, crc;
    };

    bool turn();
    broker_reply ask(std::span<const std::string_view> words);
    broker_reply ask(std::initializer_list<std::string_view> words) {
        return ask(std::span(words.begin(), words.size()));
    }
    bool read_runs();
    void take_run(const announced_run &run, bool again);
    bool begin_run(const announced_run &run);
    void take_modules_again();
    bool look_after_modules();
    bool wait_for_news();
    bool read_frames(followed_stream &stream);
    bool read_newest(followed_stream &stream);
    bool fetch(followed_stream &stream, const std::vector<header> &headers);
    bool read_scalers();
    bool look_at_end();
    void finish(const std::string &how);

    void count_lost(followed_stream &stream, std::uint64_t first, std::uint64_t end);
    void count_received(followed_stream &stream, std::uint64_t frame);
    void tell_lost(followed_stream &stream);
    void resync(const std::string &why);

    broker broker_;
    follow_options options_;
    follow_state &state_;
    std::string runs_seen_ = "0-0"; // entry of the list of runs
    std::deque<announced_run> coming_;
    announced_run begun_; // last
    std::string run_;     // empty: none
    bool ended_ = true;   // all of its frames are accounted for
    std::deque<followed_stream> cards_;
    std::uint64_t scalers_next_ = 0;
    broker_back_off::clock::time_point made_again_{},
        next_try_{};      // of modules that were gone, or could not be made
    bool listed_ = false; // what there was at the start
    bool read_ = false;   // something, in this turn
    bool told_ = false;   // that there is something to read, in the turn before
};

} // namespace kestrel::stream
