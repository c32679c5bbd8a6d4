// stream: a follower's frames: what is read, what is lost, and what is told of it.
#include "stream/follower.h"
#include "support/crc32c.h"

#include <charconv>
#include <cstdio>

namespace kestrel::stream {

namespace {

constexpr const char *frames_at_once = "64";

std::string text_of(broker_value value) {
    return std::string(value.text().value_or(""));
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

} // namespace

void follower_says(const std::string &line) {
    std::puts(line.c_str()); // the session core belongs to the command thread
}

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
    read_ = true;
    const std::lock_guard guard(state_.mutex);
    state_.account.acquired += end - first;
    (options_.all ? state_.account.lost : state_.account.skipped) += end - first;
}

void follower::count_received(followed_stream &stream, std::uint64_t frame) {
    tell_lost(stream);
    stream.next = frame + 1;
    read_ = true;
    const std::lock_guard guard(state_.mutex);
    ++state_.account.acquired;
    ++state_.account.received;
}

void follower::tell_lost(followed_stream &stream) {
    if (options_.all && stream.lost_end > stream.lost_first)
        follower_says("# card " + std::to_string(stream.card.shape().index) + " lost " +
                      std::to_string(stream.lost_first) + ".." + std::to_string(stream.lost_end - 1));
    stream.lost_first = stream.lost_end = 0;
}

void follower::resync(const std::string &why) {
    follower_says("# resync: " + why);
    const std::lock_guard guard(state_.mutex);
    ++state_.resyncs;
}

// The entries of the stream from the next frame on.
bool follower::read_frames(followed_stream &stream) {
    const broker_reply entries =
        ask({"XRANGE", stream.key, entry_id(stream.next), "+", "COUNT", frames_at_once});
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
    const broker_reply last = ask({"XREVRANGE", stream.key, "+", "-", "COUNT", "1"});
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
        if (const auto error = payload.error(); error && !error->starts_with("WRONGTYPE")) {
            broker_.refuse(std::string(*error)); // it may be there: its header is read again
            return false;
        }
        const auto bytes = bytes_of(payload.text().value_or(""));
        const bool good = !bytes.empty() && has_sum(bytes, h.crc);
        if (good && stream.card.put(h.frame, bytes, h.status, h.missing)) {
            count_received(stream, h.frame);
            continue;
        }
        if (!bytes.empty())
            follower_says("! ERROR: card " + std::to_string(stream.card.shape().index) +
                          ": the counts of frame " + std::to_string(h.frame) + " are damaged");
        count_lost(stream, h.frame, h.frame + 1);
    }
    return true;
}

// Scalers of all cards, one after the other, as they were told.
bool follower::read_scalers() {
    if (run_.empty())
        return true;
    const broker_reply entries = ask(
        {"XRANGE", broker_.key(scalers_key(run_)), entry_id(scalers_next_), "+", "COUNT", frames_at_once});
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const auto frame = frame_of_entry(entries.at(i).at(0).text().value_or(""));
        if (!frame || *frame < scalers_next_)
            break;
        scalers_next_ = *frame + 1;
        read_ = true;
        const broker_value fields = entries.at(i).at(1);
        auto words = bytes_of(fields.field("scalers").text().value_or(""));
        if (!words.empty() &&
            !has_sum(bytes_of(text_of(fields.field("scalers")) + text_of(fields.field("factors"))),
                     text_of(fields.field("crc32c")))) {
            follower_says("! ERROR: the scalers of frame " + std::to_string(*frame) + " are damaged");
            continue;
        }
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

} // namespace kestrel::stream
