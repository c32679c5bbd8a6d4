// stream: frames on their way to the broker: first the payloads, then, all together, the headers that say which of them
// are there. A header that is refused has its payload taken back. While the broker works on the headers of some frames, it is
// sent the payloads of the next: it never waits for us, nor we for it, as long as there are any.
#include "stream/sender.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <utility>

namespace kestrel::stream {

namespace {

constexpr std::size_t frames_at_once = 256, bytes_at_once = 8 << 20;
constexpr int batches_a_turn = 16; // then runs are begun and sealed

std::string hexadecimal(std::uint32_t word) {
    char text[9];
    std::snprintf(text, sizeof text, "%08x", word);
    return text;
}

// Scalers may come when the frames are sealed.
const char *state_when_told(const published_run &run) {
    return run.sealed ? "sealed" : run.over || run.cut ? "stopped" : "running";
}

} // namespace

std::string sender::payload_of(const outgoing &o) const {
    return broker_.key(payload_key(o.run->id, o.run->lanes[o.lane].card, o.frame.frame));
}

// The oldest run's first; a frame of each lane in turn, so that cards keep step; behind those whose headers are on their way.
sender::batch sender::collect() {
    batch frames;
    std::size_t bytes = 0;
    const std::size_t bytes_most = std::min(bytes_at_once, std::max<std::size_t>(budget_ / 8, 1));
    std::map<frame_ring::lane_number, std::uint64_t> under_way;
    for (const outgoing &o : telling_.frames)
        ++under_way[o.run->lanes[o.lane].number];
    const std::lock_guard guard(p_.mutex);
    for (const auto &run : p_.runs)
        for (std::uint64_t ahead = 0; run->epoch > 0; ++ahead) {
            bool any = false;
            for (std::size_t lane = 0; lane < run->lanes.size(); ++lane) {
                if (!run->lanes[lane].known.empty())
                    continue;
                const auto number = run->lanes[lane].number;
                const auto next = p_.ring.next(number, under_way[number] + ahead);
                if (!next)
                    continue;
                const std::size_t size = next->contents ? next->contents->payload.size() : 0;
                if (frames.size() == frames_at_once || (!frames.empty() && bytes + size > bytes_most))
                    return frames;
                bytes += size;
                frames.push_back({run, lane, *next, false});
                any = true;
            }
            if (!any)
                break;
        }
    return frames;
}

bool sender::send_some() {
    bool more = false;
    for (int i = 0; i < batches_a_turn; ++i) {
        batch frames = collect();
        more = !frames.empty() && send(frames);
        if (!more)
            break;
    }
    return broker_.is_connected() && settle() && more;
}

bool sender::send(batch &frames) {
    std::size_t bytes = 0;
    for (const outgoing &o : frames)
        bytes += broker_cost(o.frame.contents ? o.frame.contents->payload.size() : 0) + broker_cost(256);
    stock_.expire(broker_stock::clock::now());
    if (stock_.bytes() + bytes > budget_ && (!settle() || !make_room(bytes)))
        return false;
    doubtful_ = telling_.frames;
    doubtful_.insert(doubtful_.end(), frames.begin(), frames.end());
    std::vector<broker_words> headers;
    if (!append_payloads(frames, headers))
        return false;
    const int told = telling_.frames.empty() ? 1 : answer_to(telling_.commands);
    if (told < 0 || !take_answers(frames, headers))
        return false;
    if (told == 0) {
        if (take_back(frames))
            give_back();
        if (broker_.is_connected())
            doubtful_.clear();
        return false;
    }
    note_told();
    tell(std::move(frames), std::move(headers));
    doubtful_ = telling_.frames;
    return broker_.is_connected();
}

// Waits for what the broker says of the headers that were sent last.
bool sender::settle() {
    if (telling_.frames.empty())
        return true;
    const int told = answer_to(telling_.commands);
    if (told == 0)
        give_back();
    if (told > 0)
        note_told();
    if (broker_.is_connected())
        doubtful_.clear();
    return told > 0;
}

// One that is larger than all that may be kept is lost.
bool sender::has_payload(const outgoing &o) const {
    return o.frame.contents && o.run->lanes[o.lane].card >= 0 &&
           broker_cost(o.frame.contents->payload.size()) <= budget_;
}

// The headers are put together meanwhile, as if the broker took all of it: it works on the payloads before.
bool sender::append_payloads(batch &frames, std::vector<broker_words> &headers) {
    const std::string keep = std::to_string(limits_.keep.count());
    for (outgoing &o : frames) {
        const bool in_entry = o.frame.contents && o.run->lanes[o.lane].card < 0; // scalers
        o.stored = in_entry || has_payload(o);
        if (o.stored && !in_entry) {
            const auto &bytes = o.frame.contents->payload;
            const std::string_view payload(reinterpret_cast<const char *>(bytes.data()), bytes.size());
            if (!broker_.append({"SET", payload_of(o), payload, "EX", keep}))
                return false;
        }
        headers.push_back(header_of(o));
    }
    return true;
}

bool sender::take_answers(batch &frames, std::vector<broker_words> &headers) {
    const auto expires = broker_stock::clock::now() + limits_.keep;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        outgoing &o = frames[i];
        if (!has_payload(o))
            continue;
        const broker_reply done = broker_.next();
        if (!done)
            return false;
        if (done.is_ok()) {
            stock_.add_payload(payload_of(o), o.frame.contents->payload.size(), expires);
            continue;
        }
        o.stored = false; // refused for want of room: the frame is lost, and told of
        headers[i] = header_of(o);
    }
    return true;
}

broker_words sender::header_of(const outgoing &o) const {
    broker_words words;
    words.text("XADD").text(o.run->lanes[o.lane].stream).text(entry_id(o.frame.frame));
    words.field("time", std::to_string(o.frame.time_us)).field("lost", o.stored ? 0U : 1U);
    if (o.stored)
        o.run->lanes[o.lane].card < 0 ? tell_scalers(words, o) : tell_counts(words, o);
    return words;
}

void sender::tell_counts(broker_words &words, const outgoing &o) const {
    const card_shape &card = o.run->cards[o.lane];
    const frame_contents &c = *o.frame.contents;
    words.field("key", payload_of(o)).field("bytes", c.payload.size()).field("crc32c", hexadecimal(c.crc));
    words.field("dtype", "<u4");
    words.field("shape", std::to_string(card.channels) + "," + std::to_string(card.auxiliaries) + "," +
                             std::to_string(card.energies));
    words.field("axes", "channel,auxiliary_bin,energy").field("units", ",,bin");
    words.field("status", c.status).field("missing", c.missing);
}

void sender::tell_scalers(broker_words &words, const outgoing &o) const {
    const frame_contents &c = *o.frame.contents;
    constexpr std::size_t counted = scalers_a_channel * sizeof(std::uint32_t);
    const std::size_t channels = c.payload.size() / (counted + sizeof(double));
    const auto bytes = std::span(c.payload);
    words.field("shape", std::to_string(channels) + "," + std::to_string(scalers_a_channel));
    words.field("axes", "channel,scaler").field("units", ",");
    words.field("crc32c", hexadecimal(c.crc));
    words.field("dtype:scalers", "<u4").text("scalers").bytes(bytes.first(channels * counted));
    words.field("dtype:factors", "<f8").text("factors").bytes(bytes.subspan(channels * counted));
}

void sender::tell(batch frames, std::vector<broker_words> commands) {
    telling_.sizes.clear();
    for (const broker_words &header : commands)
        telling_.sizes.push_back(header.size());
    {
        const std::lock_guard guard(p_.mutex);
        for (const outgoing &o : frames) // somebody else has sealed it, where it was
            o.run->sealed = o.run->sealed && o.run->lanes[o.lane].card < 0;
        for (std::size_t i = 0; i < frames.size(); ++i)
            if (const published_run &run = *frames[i].run;
                i + 1 == frames.size() || frames[i + 1].run.get() != &run)
                commands.push_back(meta_of(run, state_when_told(run), "", frames));
    }
    telling_.frames = std::move(frames);
    telling_.commands = commands.size();
    append_together(commands);
}

void sender::note_told() {
    const std::lock_guard guard(p_.mutex);
    for (std::size_t i = 0; i < telling_.frames.size(); ++i) {
        const outgoing &o = telling_.frames[i];
        p_.ring.told(o.run->lanes[o.lane].number, !o.stored);
        stock_.add_headers(o.run->id, broker_cost(telling_.sizes[i]));
    }
    telling_.frames.clear();
}

// What the broker refused to be told of is sent again, when there is room.
void sender::give_back() {
    const batch frames = std::exchange(telling_.frames, {});
    if (take_back(frames))
        give_way();
}

bool sender::take_back(const batch &frames) {
    for (const outgoing &o : frames)
        if (o.stored && o.run->lanes[o.lane].card >= 0) {
            stock_.forget_payload(payload_of(o));
            broker_words del;
            del.text("DEL").text(payload_of(o));
            if (!remove(del))
                return false;
        }
    return true;
}

// What is not removed is not known any more, and read again.
bool sender::remove(const broker_words &del) {
    const broker_reply done = broker_.command(del.words());
    if (done.integer())
        return true;
    has_stock_ = false;
    if (done)
        broker_.refuse(std::string(done.error().value_or("the broker does not remove what it is told")));
    return false;
}

// Whether more may be told of it, which must find what was told before.
bool sender::is_here(const std::string &id) const {
    const std::lock_guard guard(p_.mutex);
    return std::ranges::any_of(p_.runs, [&](const auto &run) { return run->id == id; });
}

// Whole payloads, the oldest first, then whole runs. What is left when only one run's headers are is what it needs.
bool sender::make_room(std::size_t bytes) {
    const std::size_t most = budget_ - std::min(budget_, bytes);
    broker_words del;
    del.text("DEL");
    while (stock_.bytes() > most && stock_.payloads() > 0)
        del.text(*stock_.take_oldest_payload());
    if (del.count() > 1 && !remove(del))
        return false;
    while (stock_.bytes() > most && !stock_.runs().empty() && !is_here(stock_.runs().front().run)) {
        const auto run = stock_.take_oldest_run();
        if (!run)
            break;
        if (!remove_run(*run))
            return false;
    }
    return true;
}

// Its keys, and its entries in the list of runs.
bool sender::remove_run(const std::string &run) {
    const broker_reply cards = broker_.command({"HGET", broker_.key(meta_key(run)), "cards"});
    std::string_view list = cards.text().value_or("");
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(' '), list.size());
        broker_.command({"DEL", broker_.key(run + ":f:" + std::string(list.substr(0, end)))});
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    broker_.command({"DEL", broker_.key(scalers_key(run)), broker_.key(meta_key(run))});
    const broker_reply entries = broker_.command({"XRANGE", broker_.key("runs"), "-", "+"});
    for (std::size_t i = 0; i < entries.size(); ++i)
        if (const auto id = entries.at(i).at(0).text(); id && entries.at(i).at(1).field("run").text() == run)
            broker_.command({"XDEL", broker_.key("runs"), *id});
    return broker_.is_connected();
}

} // namespace kestrel::stream
