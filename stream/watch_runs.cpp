// stream: the publisher's eyes. Frames are copied out of the modules into the ring as they become final; nothing here
// waits for the broker.
#include "stream/entries.h"
#include "stream/publication.h"
#include "support/crc32c.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>

namespace kestrel::stream {

namespace {

using std::chrono::milliseconds;
constexpr milliseconds look_for_runs{20}; // and how long a look at frames waits when no run is on
constexpr milliseconds look_at_frames{1};
constexpr int frames_a_turn = 64; // of a card, before the others have theirs

struct watched_run {
    std::vector<card_seen> cards;
    std::shared_ptr<published_run> run;
    std::vector<std::uint64_t> next; // a lane each
};

class watcher {
  public:
    watcher(publication &p, const std::string &prefix) : p_(p), prefix_(prefix) {}
    void watch();

  private:
    void find_runs();
    void begin(std::vector<card_seen> cards);
    bool follow(watched_run &w); // whether there may be more at once
    bool follow_card(watched_run &w, std::size_t card);
    bool follow_scalers(watched_run &w);
    bool acquire(watched_run &w, std::size_t lane, std::shared_ptr<frame_contents> contents);

    publication &p_;
    const std::string &prefix_;
    std::vector<watched_run> watched_;
    std::vector<double> begun_; // that were begun here lately
};

void watcher::watch() {
    auto found = std::chrono::steady_clock::time_point{};
    std::unique_lock lock(p_.mutex);
    while (!p_.ending) {
        lock.unlock();
        if (const auto now = std::chrono::steady_clock::now(); now >= found + look_for_runs) {
            find_runs();
            found = now;
        }
        bool more = false;
        for (watched_run &w : watched_)
            more = follow(w) || more;
        std::erase_if(watched_, [](const watched_run &w) { return w.run->cut; });
        lock.lock();
        p_.looked = true;
        if (!more && !p_.ending)
            p_.news.wait_for(lock, watched_.empty() ? look_for_runs : look_at_frames,
                             [this] { return p_.ending; });
    }
}

// Cards that have begun at one time are a run's; it is one when all of them are there.
void watcher::find_runs() {
    std::map<double, std::vector<card_seen>> found;
    for (const int index : cards_here())
        if (std::optional<card_seen> card = card_seen::open(index);
            card && std::ranges::find(begun_, card->begun) == begun_.end())
            found[card->begun].push_back(std::move(*card));
    for (auto &[begun, cards] : found)
        if (cards.size() == cards.front().cards_of_run)
            begin(std::move(cards));
}

void watcher::begin(std::vector<card_seen> cards) {
    begun_.push_back(cards.front().begun);
    if (begun_.size() > 1000)
        begun_.erase(begun_.begin());
    auto run = std::make_shared<published_run>();
    run->begun_us = static_cast<std::int64_t>(cards.front().begun * 1e6);
    run->id = run_id_of(run->begun_us);
    run->settings = settings_json(cards);
    const auto key = [this](const std::string &name) { return prefix_ + ":" + name; };
    const std::lock_guard guard(p_.mutex);
    for (const card_seen &card : cards) {
        run->cards.push_back(card.shape);
        run->lanes.push_back(
            {p_.ring.add_lane(), card.shape.index, key(frames_key(run->id, card.shape.index)), {}});
    }
    run->lanes.push_back({p_.ring.add_lane(), -1, key(scalers_key(run->id)), {}});
    watched_.push_back({std::move(cards), run, std::vector<std::uint64_t>(run->lanes.size())});
    p_.runs.push_back(run);
    p_.changed();
}

bool watcher::acquire(watched_run &w, std::size_t lane, std::shared_ptr<frame_contents> contents) {
    contents->crc = crc32c(contents->payload);
    contents->time_us = now_us();
    ++w.next[lane];
    const std::lock_guard guard(p_.mutex);
    p_.ring.acquire(w.run->lanes[lane].number, std::move(contents));
    p_.changed();
    return true;
}

bool watcher::follow_card(watched_run &w, std::size_t card) {
    const card_seen &c = w.cards[card];
    for (int i = 0; i < frames_a_turn; ++i) {
        std::shared_ptr<frame_contents> contents = c.copy(w.next[card]);
        if (!contents)
            return false;
        acquire(w, card, std::move(contents));
    }
    return true;
}

// A frame's scalers go out when those of all cards are there.
bool watcher::follow_scalers(watched_run &w) {
    const std::size_t lane = w.cards.size();
    const std::uint64_t frame = w.next[lane];
    if (!std::ranges::all_of(w.cards, [&](const card_seen &c) { return c.has_scalers(frame); }))
        return false;
    std::vector<std::uint32_t> scalers;
    std::vector<double> factors;
    for (const card_seen &card : w.cards)
        if (!card.copy_scalers(frame, scalers, factors))
            return false;
    auto contents = std::make_shared<frame_contents>();
    const auto counts = std::as_bytes(std::span(scalers)), more = std::as_bytes(std::span(factors));
    contents->payload.assign(counts.begin(), counts.end());
    contents->payload.insert(contents->payload.end(), more.begin(), more.end());
    return acquire(w, lane, std::move(contents));
}

bool watcher::follow(watched_run &w) {
    // Asked first: what was said of the run before its modules were removed is seen below.
    const bool removed = std::ranges::any_of(w.cards, &card_seen::is_removed);
    bool more = false, over = true;
    for (std::size_t card = 0; card < w.cards.size(); ++card) {
        const auto frames = w.cards[card].frames();
        more = follow_card(w, card) || more;
        over = over && frames && w.next[card] >= *frames;
    }
    more = follow_scalers(w) || more;
    const bool same = std::ranges::all_of(w.cards, &card_seen::is_same_run);
    const bool cut = !same || (!more && removed);
    if (over == w.run->over && !cut) // only this thread changes it
        return more;
    const std::lock_guard guard(p_.mutex);
    w.run->over = w.run->over || (over && same);
    w.run->cut = cut;
    p_.changed();
    return more;
}

} // namespace

void watch_runs(publication &p, const std::string &prefix) {
    watcher(p, prefix).watch();
}

} // namespace kestrel::stream
