// stream: the publisher's hand: tells the broker of runs and frames, and takes away what there is no more room for. One
// thread, which alone waits for the broker.
#pragma once

#include "stream/broker.h"
#include "stream/entries.h"
#include "stream/publication.h"
#include "stream/stock.h"

#include <chrono>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::stream {

struct sender_limits {
    std::chrono::seconds keep{3600}; // a payload's life
    std::size_t budget = 0;          // bytes at the broker; 0: what the share of its maxmemory is
};

// Frames of a card (-1: scalers) that had been sent and are not there any more.
struct run_gap {
    int card = 0;
    std::uint64_t from = 0, end = 0;
};

class sender {
  public:
    sender(publication &p, broker_site site, const sender_limits &limits)
        : p_(p), broker_(std::move(site)), limits_(limits) {}

    void send_until_end();

  private:
    // A frame on its way, and what becomes of it.
    struct outgoing {
        std::shared_ptr<published_run> run;
        std::size_t lane = 0;
        frame_ring::next_frame frame;
        bool stored = false;
    };
    using batch = std::vector<outgoing>;

    bool turn(); // whether there may be more at once
    bool is_ready();
    void note_state();
    std::vector<std::shared_ptr<published_run>> all_runs() const;

    // sender_recover.cpp: after a connection was made, the broker is asked what it has.
    bool recover();
    bool read_broker();
    static std::string machine_name();
    bool claim_prefix();
    bool take_stock();
    bool take_stock_of(const std::string &run);
    using payloads_by_age = std::vector<std::pair<long long, std::string>>; // microseconds, key
    bool take_stock_of_frames(const std::string &run, int card, payloads_by_age &payloads);
    bool take_stock_of_payloads(const payloads_by_age &payloads);
    bool forget_doubtful(bool counted);
    bool forget(const outgoing &o, bool counted);
    bool is_to_be_sent(const outgoing &o) const;
    bool recover_run(const std::shared_ptr<published_run> &of);
    bool go_on(published_run &run, const broker_value &meta, bool is_listed,
               const std::vector<run_gap> &gaps);
    bool has_answered(const broker_value &reply, const std::string &key);
    bool recover_lane(const published_run &run, run_lane &lane, const broker_value &last,
                      std::vector<run_gap> &gaps);
    bool remove_payloads(const std::string &run, const run_gap &gap);
    bool read_fates(run_lane &lane, std::uint64_t from, std::uint64_t end);
    void look_after();
    bool announce(published_run &run, const std::string &event, const std::string &gaps);
    bool seal_strangers();
    void apply_known();

    // sender_frames.cpp
    bool send_some(); // whether there may be more at once
    batch collect();
    bool send(batch &frames);
    bool settle();
    bool has_payload(const outgoing &o) const;
    bool append_payloads(batch &frames, std::vector<broker_words> &headers);
    bool take_answers(batch &frames, std::vector<broker_words> &headers);
    void tell(batch frames, std::vector<broker_words> headers);
    void note_told();
    void give_back();
    bool take_back(const batch &frames); // payloads without a header
    broker_words header_of(const outgoing &o) const;
    void tell_counts(broker_words &words, const outgoing &o) const;
    void tell_scalers(broker_words &words, const outgoing &o) const;
    bool make_room(std::size_t bytes);
    bool is_here(const std::string &run) const;
    bool remove(const broker_words &del);
    bool remove_run(const std::string &run);

    // Commands that count all together or not at all: 1 done, 0 refused (refusal_), -1 the connection failed.
    int together(std::span<const broker_words> commands);
    void append_together(std::span<const broker_words> commands);
    void append_watch(std::span<const std::shared_ptr<published_run>> runs);
    int answer_to(std::size_t commands);
    void note(const broker_value &reply);
    void give_way();
    // `told`: frames that the same transaction tells of.
    broker_words meta_of(const published_run &run, const char *state, const char *end = "",
                         std::span<const outgoing> told = {}) const;
    bool seal(published_run &run);
    std::string payload_of(const outgoing &o) const;

    publication &p_;
    broker broker_;
    sender_limits limits_;
    broker_stock stock_;
    std::string refusal_;    // what the broker said instead of doing something
    std::string entry_;      // what it called the last of the commands that counted together
    std::string broker_run_; // which life of the broker it is
    const std::string machine_ = machine_name();
    std::size_t budget_ = 0;
    bool has_stock_ = false, strangers_sealed_ = false;
    std::vector<std::string> strangers_; // runs there that are not ours and not sealed
    batch doubtful_;                     // whose fate a lost connection leaves open
    struct {
        batch frames;
        std::vector<std::size_t> sizes; // of their headers
        std::size_t commands = 0;
    } telling_; // whose headers are on their way: the broker's answer was not read yet
    std::chrono::steady_clock::time_point refused_{}; // the broker had no room
    std::chrono::steady_clock::time_point looked_{};  // at what stands there
};

} // namespace kestrel::stream
