#include "stream/follower.h"

#include "modules/store/run_sheet.h"

#include <algorithm>
#include <charconv>
#include <thread>

namespace kestrel::stream {

namespace {

constexpr int cards_most = 256;
constexpr const char *wait_ms = "200"; // for news
constexpr std::chrono::seconds make_again_every{1}, try_again_after{5};

std::string_view take_word(std::string_view &text) {
    const std::size_t end = std::min(text.find(' '), text.size());
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return word;
}

std::string text_of(broker_value value) {
    return std::string(value.text().value_or(""));
}

std::uint64_t count_of(broker_value value) {
    return static_cast<std::uint64_t>(std::max(0LL, value.integer().value_or(0)));
}

} // namespace

void follower::follow_until_end() {
    while (!state_.ending) {
        const bool good = broker_.ready() && turn();
        {
            const std::lock_guard guard(state_.mutex);
            state_.connected = broker_.is_connected();
            state_.cause = broker_.cause();
        }
        if (!good)
            std::this_thread::sleep_for(broker_back_off::shortest);
    }
}

// An error is no answer: the broker is loading, or does not let us; it is asked again after a while.
broker_reply follower::ask(std::span<const std::string_view> words) {
    broker_reply reply = broker_.command(words);
    const auto error = reply.error();
    if (!error)
        return reply;
    broker_.refuse(std::string(*error));
    return {};
}

bool follower::turn() {
    read_ = false;
    if (!read_runs())
        return false;
    if (!coming_.empty() && (ended_ || !options_.all) && broker_back_off::clock::now() >= next_try_) {
        if (!ended_)
            finish("left for a newer one");
        begun_ = std::move(coming_.front());
        coming_.pop_front();
        if (!begin_run(begun_))
            return true;
    }
    if (!look_after_modules())
        return true;
    for (followed_stream &stream : cards_)
        if (!(options_.all ? read_frames(stream) : read_newest(stream)))
            return false;
    return read_scalers() && wait_for_news();
}

// ---------------------------------------------------------------- runs

bool follower::read_runs() {
    const broker_reply list = ask({"XRANGE", broker_.key("runs"), "(" + runs_seen_, "+"});
    if (!list)
        return false;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const broker_value fields = list.at(i).at(1);
        const std::string event = text_of(fields.field("event"));
        runs_seen_ = text_of(list.at(i).at(0));
        read_ = true;
        if (event == "start" || event == "again")
            take_run({text_of(fields.field("run")), text_of(fields.field("cards")),
                      text_of(fields.field("shapes")), count_of(fields.field("epoch"))},
                     event == "again");
    }
    if (!options_.all || !listed_) // the newest is where we begin
        coming_.erase(coming_.begin(), coming_.end() - std::min<std::ptrdiff_t>(1, std::ssize(coming_)));
    listed_ = true;
    return true;
}

void follower::take_run(const announced_run &run, bool again) {
    if (run.id == run_) {
        ended_ = ended_ && !again;
        const std::lock_guard guard(state_.mutex);
        state_.epoch = run.epoch;
        return; // what is missing of it shows in its streams
    }
    const auto known = std::ranges::find(coming_, run.id, &announced_run::id);
    if (known != coming_.end())
        *known = run;
    else if (!again || !listed_ || run.id > run_) // names of runs are times
        coming_.push_back(run);
}

bool follower::begin_run(const announced_run &run) {
    std::string_view cards = run.cards, shapes = run.shapes;
    run_.clear();
    cards_.clear();
    while (!cards.empty() && std::ssize(cards_) < cards_most) {
        int index = -1;
        const std::string_view number = take_word(cards);
        std::from_chars(number.data(), number.data() + number.size(), index);
        const auto shape = index < 0 ? std::nullopt : shape_of_text(index, take_word(shapes));
        if (!shape) {
            follower_says("! ERROR: run " + run.id + ": shapes that no card has");
            cards_.clear();
            return false;
        }
        if (options_.rename.empty() && open_for_reading(run_sheet_prefix + std::to_string(index))) {
            follower_says("! ERROR: run " + run.id + ": card " + std::to_string(index) +
                          " is one of this machine's own: -rename=PREFIX");
            cards_.clear();
            return false;
        }
        cards_.emplace_back().key = broker_.key(frames_key(run.id, index));
        if (!cards_.back().card.open(*shape, options_.rename)) {
            take_modules_again();
            return false;
        }
    }
    run_ = run.id;
    ended_ = false;
    scalers_next_ = 0;
    follower_says("# run " + run_);
    const std::lock_guard guard(state_.mutex);
    state_.run = run_;
    state_.epoch = run.epoch;
    return true;
}

// There is no room for the modules of the run, or something is in their way: it is begun anew after a while.
void follower::take_modules_again() {
    follower_says("! ERROR: run " + begun_.id + ": no modules for it now");
    coming_.push_front(begun_);
    next_try_ = broker_back_off::clock::now() + try_again_after;
    cards_.clear();
    run_.clear();
    ended_ = true;
}

// Modules of a run that goes on which somebody has removed or cut short are made again, once a second at most, and filled
// with what the broker still has. False when they cannot be.
bool follower::look_after_modules() {
    const auto now = broker_back_off::clock::now();
    if (ended_ || now < made_again_ + make_again_every)
        return true;
    for (followed_stream &stream : cards_) {
        if (stream.card.is_here())
            continue;
        made_again_ = now;
        tell_lost(stream);
        follower_says("! ERROR: card " + std::to_string(stream.card.shape().index) +
                      ": its modules were removed or cut short: made again");
        stream.next = scalers_next_ = 0;
        if (const card_shape shape = stream.card.shape(); stream.card.open(shape, options_.rename))
            continue;
        take_modules_again();
        return false;
    }
    return true;
}

// The run's end, when it is sealed and all of it was read; or when it is gone.
bool follower::look_at_end() {
    const broker_reply meta = ask({"HGETALL", broker_.key(meta_key(run_))});
    if (!meta)
        return false;
    if (meta.size() == 0) {
        if (coming_.empty())
            return true; // the broker may have been started anew: its publisher will tell
        resync("run " + run_ + " is kept no more");
        finish("gone");
        return true;
    }
    if (meta.field("state").text() != "sealed")
        return true;
    for (followed_stream &stream : cards_) {
        const std::uint64_t frames =
            count_of(meta.field("frames:" + std::to_string(stream.card.shape().index)));
        const broker_reply more = ask({"XRANGE", stream.key, entry_id(stream.next), "+", "COUNT", "1"});
        if (!more)
            return false;
        if (more.size() > 0)
            return true; // there is more to read
        if (frames <= stream.next)
            continue;
        if (options_.all)
            resync("card " + std::to_string(stream.card.shape().index) + " has a gap at its end");
        count_lost(stream, stream.next, frames);
    }
    if (std::ranges::all_of(cards_, [](const followed_stream &stream) { return stream.card.is_here(); }))
        finish(text_of(meta.field("end")));
    return true;
}

void follower::finish(const std::string &how) {
    for (followed_stream &stream : cards_)
        tell_lost(stream);
    follower_says("# run " + run_ + " ends: " + how);
    ended_ = true; // its scalers may still come
}

// Until there is an entry in any of the streams, for a while.
bool follower::wait_for_news() {
    broker_words words;
    words.text("XREAD").text("COUNT").text("1").text("BLOCK").text(wait_ms).text("STREAMS");
    words.text(broker_.key("runs"));
    for (const followed_stream &stream : cards_)
        words.text(stream.key);
    if (!run_.empty())
        words.text(broker_.key(scalers_key(run_)));
    words.text(runs_seen_);
    for (const followed_stream &stream : cards_)
        words.text(std::to_string(stream.next) + "-0");
    if (!run_.empty())
        words.text(std::to_string(scalers_next_) + "-0");
    const auto asked = broker_back_off::clock::now();
    const broker_reply news = ask(words.words());
    if (!news)
        return false;
    // What cannot be read comes at once, again and again: whoever wrote it is no publisher.
    const bool in_vain = !read_ && (told_ || news.size() == 0);
    if (in_vain && broker_back_off::clock::now() < asked + broker_back_off::shortest)
        std::this_thread::sleep_for(broker_back_off::shortest);
    told_ = news.size() > 0;
    return news.size() > 0 || ended_ || look_at_end();
}

} // namespace kestrel::stream
