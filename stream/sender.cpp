#include "stream/sender.h"

#include <algorithm>

namespace kestrel::stream {

namespace {

constexpr std::chrono::milliseconds longest_sleep{200}, pause_when_full{100}, last_words{1000};

std::string seconds_of(std::int64_t us) {
    return std::to_string(us / 1000000) + "." + std::to_string(1000000 + us % 1000000).substr(1);
}

} // namespace

void sender::send_until_end() {
    std::unique_lock lock(p_.mutex);
    while (!p_.ending) {
        const std::uint64_t changes = p_.changes;
        lock.unlock();
        const bool more = turn();
        lock.lock();
        if (!more)
            p_.news.wait_for(lock, broker_.is_connected() ? longest_sleep : broker_back_off::shortest,
                             [&] { return p_.ending || (broker_.is_connected() && p_.changes != changes); });
    }
    lock.unlock();
    // What waits goes out, where the broker takes it.
    const auto until = std::chrono::steady_clock::now() + last_words;
    while (broker_.is_connected() && std::chrono::steady_clock::now() < until && turn())
        ;
}

std::vector<std::shared_ptr<published_run>> sender::all_runs() const {
    const std::lock_guard guard(p_.mutex);
    return {p_.runs.begin(), p_.runs.end()};
}

bool sender::is_ready() {
    const bool connected = broker_.is_connected();
    if (broker_.ready() && !((connected || recover()) && take_stock()) && broker_.is_connected())
        broker_.refuse("the broker does not take what it is told");
    return broker_.is_connected();
}

bool sender::turn() {
    if (!is_ready()) {
        note_state();
        return false;
    }
    apply_known();
    if (std::chrono::steady_clock::now() < refused_ + pause_when_full) {
        note_state();
        return false;
    }
    bool more = send_some();
    look_after();
    for (const auto &run : all_runs()) {
        if (run->epoch == 0 && broker_.is_connected() && recover_run(run))
            more = true;
        if (run->epoch > 0 && broker_.is_connected() && !run->sealed)
            seal(*run);
    }
    if (broker_.is_connected())
        seal_strangers();
    note_state();
    return more;
}

void sender::note_state() {
    const std::lock_guard guard(p_.mutex);
    p_.broker.connected = broker_.is_connected();
    p_.broker.cause = broker_.cause();
    p_.broker.bytes = stock_.bytes();
    p_.broker.budget = budget_;
    // What was sealed, and gets nothing more, is remembered as numbers only.
    while (!p_.runs.empty() && p_.runs.front()->cut && p_.runs.front()->sealed &&
           p_.is_told(*p_.runs.front())) {
        const published_run &run = *p_.runs.front();
        p_.before += p_.total(run);
        for (const run_lane &lane : run.lanes)
            p_.ring.remove_lane(lane.number);
        p_.runs.pop_front();
    }
}

void sender::append_together(std::span<const broker_words> commands) {
    broker_.append({"MULTI"});
    for (const broker_words &c : commands)
        broker_.append(c.words());
    broker_.append({"EXEC"});
    append_watch(all_runs());
}

// Whoever else writes there meanwhile, or empties the broker, makes the next commands together count for nothing.
void sender::append_watch(std::span<const std::shared_ptr<published_run>> runs) {
    broker_words words;
    words.text("WATCH");
    for (const auto &run : runs) {
        words.text(broker_.key(meta_key(run->id)));
        for (const run_lane &lane : run->lanes)
            words.text(lane.stream);
    }
    if (words.count() > 1)
        broker_.append(words.words());
    else
        broker_.append({"UNWATCH"});
}

int sender::together(std::span<const broker_words> commands) {
    append_together(commands);
    return answer_to(commands.size());
}

int sender::answer_to(std::size_t commands) {
    refusal_.clear();
    bool begun = false;
    for (std::size_t i = 0; i <= commands; ++i) {
        const broker_reply queued = broker_.next();
        if (!queued)
            return -1;
        begun = i == 0 ? queued.is_ok() : begun;
        note(queued);
    }
    const broker_reply done = broker_.next(), watched = broker_.next();
    if (!done || !watched)
        return -1;
    note(done);
    note(watched);
    for (std::size_t i = 0; i < done.size(); ++i)
        note(done.at(i));
    entry_ = done.at(commands - 1).text().value_or("");
    if (done.size() == commands && refusal_.empty())
        return 1;
    if (refusal_.empty())
        refusal_ = done.is_nil() ? "what stands at the broker was changed"
                                 : "the broker does not take what it is told";
    if (begun && done.error())
        return 0;
    broker_.refuse(refusal_); // a part of it, or each by itself: what the broker has is read again
    return -1;
}

void sender::note(const broker_value &reply) {
    if (refusal_.empty())
        refusal_ = reply.error().value_or("");
}

// After a refusal: what is older makes room, where that is why; else the broker is of no use for now.
void sender::give_way() {
    if (!broker_.is_connected())
        return;
    refused_ = std::chrono::steady_clock::now();
    if (refusal_.find("OOM ") != refusal_.npos) // also "EXECABORT ...: OOM ..."
        make_room(budget_ - std::min(budget_, stock_.bytes()) + budget_ / 8);
    else
        broker_.refuse(refusal_);
}

// The mutex is held.
broker_words sender::meta_of(const published_run &run, const char *state, const char *end,
                             std::span<const outgoing> told) const {
    broker_words words;
    words.text("HSET").text(broker_.key(meta_key(run.id))).field("state", state);
    words.field("epoch", run.epoch).field("broker", broker_run_);
    if (*end != '\0')
        words.field("end", end);
    frame_account sum;
    for (std::size_t lane = 0; lane < run.lanes.size(); ++lane) {
        frame_account a = p_.ring.account(run.lanes[lane].number);
        for (const outgoing &o : told)
            if (o.run.get() == &run && o.lane == lane)
                ++(o.stored ? a.sent : a.lost);
        const int card = run.lanes[lane].card;
        const std::string name = card < 0 ? "scalers" : std::to_string(card);
        for (const auto &[what, n] : {std::pair{"frames:", a.told()}, {"sent:", a.sent}, {"lost:", a.lost}})
            words.text(what + name).text(std::to_string(n));
        if (card >= 0)
            sum += a;
    }
    words.field("frames", sum.told()).field("sent", sum.sent).field("lost", sum.lost);
    return words;
}

// The end of a run that is over, or cut short, once the broker knows of each frame.
bool sender::seal(published_run &run) {
    std::vector<broker_words> commands;
    {
        const std::lock_guard guard(p_.mutex);
        if ((!run.over && !run.cut) || p_.total(run).waiting() > 0)
            return false;
        commands.push_back(meta_of(run, "sealed", run.over ? "whole" : "cut"));
        const frame_account sum = p_.total(run);
        broker_words stop;
        stop.text("XADD").text(broker_.key("runs")).text("*").field("event", "stop");
        stop.field("run", run.id).field("time", seconds_of(now_us())).field("epoch", run.epoch);
        stop.field("end", run.over ? "whole" : "cut");
        stop.field("frames", sum.acquired).field("sent", sum.sent).field("lost", sum.lost);
        commands.push_back(std::move(stop));
    }
    const int done = together(commands);
    if (done == 0)
        give_way();
    const std::lock_guard guard(p_.mutex);
    run.sealed = done == 1;
    return run.sealed;
}

// A run that begins, or is there again ("again") after its broker was away.
bool sender::announce(published_run &run, const std::string &event, const std::string &gaps) {
    std::vector<broker_words> commands;
    {
        const std::lock_guard guard(p_.mutex);
        commands.push_back(meta_of(run, run.over || run.cut ? "stopped" : "armed"));
    }
    std::string cards, shapes;
    for (const card_shape &card : run.cards) {
        cards += (cards.empty() ? "" : " ") + std::to_string(card.index);
        shapes += (shapes.empty() ? "" : " ") + shape_text(card);
    }
    broker_words &meta = commands.front();
    meta.field("begun", seconds_of(run.begun_us)).field("cards", cards).field("shapes", shapes);
    meta.field("settings", run.settings);
    broker_words start;
    start.text("XADD").text(broker_.key("runs")).text("*").field("event", event).field("run", run.id);
    start.field("time", seconds_of(run.begun_us)).field("epoch", run.epoch).field("cards", cards);
    start.field("shapes", shapes).field("settings", run.settings);
    if (!gaps.empty())
        start.field("gap", gaps);
    const std::size_t bytes = start.size() + meta.size();
    commands.push_back(std::move(start));
    if (together(commands) != 1)
        return false;
    run.gaps = gaps;
    run.entry = entry_;
    {
        const std::lock_guard guard(p_.mutex);
        p_.broker.epochs += event == "again" ? 1U : 0U;
    }
    stock_.add_run(run.id);
    stock_.add_headers(run.id, broker_cost(bytes));
    return true;
}

} // namespace kestrel::stream
