#include "stream/follower.h"

#include "modules/store/run_sheet.h"
#include "server/output.h"
#include "support/crc32c.h"

#include <algorithm>
#include <charconv>
#include <thread>

namespace kestrel::stream {

namespace {

constexpr int cards_most = 256;
constexpr const char *frames_at_once = "64", *wait_ms = "200";

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

std::span<const std::byte> bytes_of(std::string_view text) {
    return std::as_bytes(std::span(text.data(), text.size()));
}

bool has_sum(std::span<const std::byte> bytes, std::string_view hexadecimal) {
    std::uint32_t sum = 0;
    const auto [end, error] =
        std::from_chars(hexadecimal.data(), hexadecimal.data() + hexadecimal.size(), sum, 16);
    return error == std::errc() && end == hexadecimal.data() + hexadecimal.size() && sum == crc32c(bytes);
}

void say(const std::string &line) {
    sv_print(-1, line + "\n");
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

bool follower::turn() {
    if (!read_runs())
        return false;
    if (!coming_.empty() && (ended_ || !options_.all)) {
        if (!ended_)
            finish("left for a newer one");
        const announced_run next = std::move(coming_.front());
        coming_.pop_front();
        if (!begin_run(next))
            return true;
    }
    for (followed_stream &stream : cards_)
        if (!(options_.all ? read_frames(stream) : read_newest(stream)))
            return false;
    return read_scalers() && wait_for_news();
}

// ---------------------------------------------------------------- runs

bool follower::read_runs() {
    const broker_reply list = broker_.command({"XRANGE", broker_.key("runs"), "(" + runs_seen_, "+"});
    if (!list)
        return false;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const broker_value fields = list.at(i).at(1);
        const std::string event = text_of(fields.field("event"));
        runs_seen_ = text_of(list.at(i).at(0));
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
            say("! ERROR: run " + run.id + ": shapes that no card has");
            cards_.clear();
            return false;
        }
        if (options_.rename.empty() && open_for_reading(run_sheet_prefix + std::to_string(index))) {
            say("! ERROR: run " + run.id + ": card " + std::to_string(index) +
                " is one of this machine's own: -rename=PREFIX");
            cards_.clear();
            return false;
        }
        cards_.emplace_back().key = broker_.key(frames_key(run.id, index));
        if (!cards_.back().card.open(*shape, options_.rename)) {
            cards_.clear();
            return false;
        }
    }
    run_ = run.id;
    ended_ = false;
    scalers_next_ = 0;
    say("# run " + run_);
    const std::lock_guard guard(state_.mutex);
    state_.run = run_;
    state_.epoch = run.epoch;
    return true;
}

// The run's end, when it is sealed and all of it was read; or when it is gone.
bool follower::look_at_end() {
    const broker_reply meta = broker_.command({"HGETALL", broker_.key(meta_key(run_))});
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
        const broker_reply more =
            broker_.command({"XRANGE", stream.key, entry_id(stream.next), "+", "COUNT", "1"});
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
    finish(text_of(meta.field("end")));
    return true;
}

void follower::finish(const std::string &how) {
    for (followed_stream &stream : cards_)
        tell_lost(stream);
    say("# run " + run_ + " ends: " + how);
    ended_ = true; // its scalers may still come
}

// ---------------------------------------------------------------- frames

void follower::count_lost(followed_stream &stream, std::uint64_t first, std::uint64_t end) {
    for (std::uint64_t frame = first; options_.all && frame < end && frame < stream.card.shape().places;
         ++frame)
        stream.card.put_lost(frame);
    if (stream.lost_end != first) {
        tell_lost(stream);
        stream.lost_first = first;
    }
    stream.lost_end = end;
    stream.next = end;
    const std::lock_guard guard(state_.mutex);
    state_.account.acquired += end - first;
    (options_.all ? state_.account.lost : state_.account.skipped) += end - first;
}

void follower::count_received(followed_stream &stream, std::uint64_t frame) {
    tell_lost(stream);
    stream.next = frame + 1;
    const std::lock_guard guard(state_.mutex);
    ++state_.account.acquired;
    ++state_.account.received;
}

void follower::tell_lost(followed_stream &stream) {
    if (options_.all && stream.lost_end > stream.lost_first)
        say("# card " + std::to_string(stream.card.shape().index) + " lost " +
            std::to_string(stream.lost_first) + ".." + std::to_string(stream.lost_end - 1));
    stream.lost_first = stream.lost_end = 0;
}

void follower::resync(const std::string &why) {
    say("# resync: " + why);
    const std::lock_guard guard(state_.mutex);
    ++state_.resyncs;
}

// The entries of the stream from the next frame on.
bool follower::read_frames(followed_stream &stream) {
    const broker_reply entries =
        broker_.command({"XRANGE", stream.key, entry_id(stream.next), "+", "COUNT", frames_at_once});
    std::vector<header> headers;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const broker_value fields = entries.at(i).at(1);
        const auto frame = frame_of_entry(entries.at(i).at(0).text().value_or(""));
        if (!frame || *frame < (headers.empty() ? stream.next : headers.back().frame + 1))
            break; // no stream of a publisher's
        headers.push_back({*frame, fields.field("lost").text() == "0" ? text_of(fields.field("key")) : "",
                           text_of(fields.field("status")), text_of(fields.field("missing")),
                           text_of(fields.field("crc32c"))});
    }
    return entries && fetch(stream, headers);
}

// Only the newest entry, and not what lies between.
bool follower::read_newest(followed_stream &stream) {
    const broker_reply last = broker_.command({"XREVRANGE", stream.key, "+", "-", "COUNT", "1"});
    if (!last)
        return false;
    const auto frame = frame_of_entry(last.at(0).at(0).text().value_or(""));
    if (!frame || *frame < stream.next)
        return true;
    if (*frame > stream.next)
        count_lost(stream, stream.next, *frame);
    return read_frames(stream);
}

bool follower::fetch(followed_stream &stream, const std::vector<header> &headers) {
    for (const header &h : headers)
        if (!h.key.empty())
            broker_.append({"GET", h.key});
    for (const header &h : headers) {
        if (h.frame > stream.next) {
            resync("card " + std::to_string(stream.card.shape().index) + " goes on at frame " +
                   std::to_string(h.frame));
            count_lost(stream, stream.next, h.frame);
        }
        const broker_reply payload = h.key.empty() ? broker_reply() : broker_.next();
        if (!h.key.empty() && !payload)
            return false;
        const auto bytes = bytes_of(payload.text().value_or(""));
        const bool good = !bytes.empty() && has_sum(bytes, h.crc);
        if (good && stream.card.put(h.frame, bytes, h.status, h.missing)) {
            count_received(stream, h.frame);
            continue;
        }
        if (!bytes.empty())
            say("! ERROR: card " + std::to_string(stream.card.shape().index) + ": the counts of frame " +
                std::to_string(h.frame) + " are damaged");
        count_lost(stream, h.frame, h.frame + 1);
    }
    return true;
}

// Scalers of all cards, one after the other, as they were told.
bool follower::read_scalers() {
    if (run_.empty())
        return true;
    const broker_reply entries = broker_.command(
        {"XRANGE", broker_.key(scalers_key(run_)), entry_id(scalers_next_), "+", "COUNT", frames_at_once});
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const auto frame = frame_of_entry(entries.at(i).at(0).text().value_or(""));
        if (!frame || *frame < scalers_next_)
            break;
        scalers_next_ = *frame + 1;
        auto words = bytes_of(entries.at(i).at(1).field("scalers").text().value_or(""));
        for (followed_stream &stream : cards_) {
            const std::size_t bytes =
                stream.card.shape().channels * scalers_a_channel * sizeof(std::uint32_t);
            if (bytes > words.size())
                break;
            stream.card.put_scalers(*frame, words.first(bytes));
            words = words.subspan(bytes);
        }
    }
    return static_cast<bool>(entries);
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
    const broker_reply news = broker_.command(words.words());
    if (!news)
        return false;
    return news.size() > 0 || ended_ || look_at_end();
}

} // namespace kestrel::stream
