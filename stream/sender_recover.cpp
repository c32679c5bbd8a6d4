// stream: what the broker has, asked after each connection that was made. It may be the same broker, one that was started
// anew with or without its data, or a replica that has become the master: what it says is what counts.
#include "stream/sender.h"

#include <algorithm>
#include <charconv>

namespace kestrel::stream {

namespace {

constexpr std::size_t entries_at_once = 1000;
constexpr std::size_t usual_budget = std::size_t{256} << 20; // of a broker without a limit
constexpr std::size_t share_percent = 55;                    // of its maxmemory, all of our keys together

// The value of "name:value" in what INFO says.
std::string_view info_of(std::string_view info, std::string_view name) {
    const std::size_t at = info.find("\n" + std::string(name) + ":");
    if (at == info.npos)
        return {};
    info.remove_prefix(at + name.size() + 2);
    return info.substr(0, info.find_first_of("\r\n"));
}

std::size_t number_of(std::string_view text) {
    std::size_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

std::size_t bytes_of_fields(broker_value fields) {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < fields.size(); ++i)
        bytes += fields.at(i).text().value_or("").size();
    return bytes;
}

// f(frame, fields, page's last) for each entry of a stream from a frame on; false when the connection failed.
template <class F> bool for_entries(broker &b, const std::string &stream, std::uint64_t from, F f) {
    const std::string count = std::to_string(entries_at_once);
    for (;;) {
        const broker_reply page = b.command({"XRANGE", stream, entry_id(from), "+", "COUNT", count});
        if (!page)
            return false;
        for (std::size_t i = 0; i < page.size(); ++i) {
            const auto frame = frame_of_entry(page.at(i).at(0).text().value_or(""));
            if (!frame || *frame < from)
                return true; // no stream of ours
            f(*frame, page.at(i).at(1));
            from = *frame + 1;
        }
        if (page.size() < entries_at_once)
            return true;
    }
}

} // namespace

bool sender::recover() {
    {
        const std::lock_guard guard(p_.mutex);
        ++p_.broker.connections;
    }
    if (!read_broker() || !take_stock() || !forget_doubtful())
        return false;
    std::vector<std::shared_ptr<published_run>> runs;
    {
        const std::lock_guard guard(p_.mutex);
        runs.assign(p_.runs.begin(), p_.runs.end());
    }
    return std::ranges::all_of(runs, [this](const auto &run) { return recover_run(*run); });
}

// Which life of which broker it is, and how much of its memory is ours.
bool sender::read_broker() {
    const broker_reply server = broker_.command({"INFO", "server"}),
                       memory = broker_.command({"INFO", "memory"});
    if (!server.text() || !memory.text()) {
        broker_.refuse("the broker does not tell of itself (INFO)");
        return false;
    }
    const std::string run(info_of(*server.text(), "run_id"));
    has_stock_ = has_stock_ && run == broker_run_;
    broker_run_ = run;
    const std::size_t most = number_of(info_of(*memory.text(), "maxmemory"));
    budget_ = most == 0 ? usual_budget : most / 100 * share_percent;
    if (limits_.budget > 0)
        budget_ = most == 0 ? limits_.budget : std::min(budget_, limits_.budget);
    return true;
}

// What of ours the broker keeps, from a life before this one, of it or of us.
bool sender::take_stock() {
    if (has_stock_)
        return true;
    stock_.clear();
    strangers_.clear();
    strangers_sealed_ = false;
    const broker_reply runs = broker_.command({"XRANGE", broker_.key("runs"), "-", "+"});
    std::vector<std::string> known;
    for (std::size_t i = 0; i < runs.size(); ++i) {
        const std::string run(runs.at(i).at(1).field("run").text().value_or(""));
        if (run.empty() || std::ranges::find(known, run) != known.end())
            continue;
        known.push_back(run);
        if (!take_stock_of(run))
            return false;
    }
    has_stock_ = broker_.is_connected();
    return has_stock_;
}

bool sender::take_stock_of(const std::string &run) {
    const broker_reply meta = broker_.command({"HGETALL", broker_.key(meta_key(run))});
    if (!meta)
        return false;
    if (meta.size() == 0)
        return remove_run(run); // its entries in the list are all that is left of it
    stock_.add_run(run);
    stock_.add_headers(run, 2 * broker_cost(bytes_of_fields(meta)));
    if (meta.field("state").text() != "sealed")
        strangers_.push_back(run);
    std::string_view cards = meta.field("cards").text().value_or("");
    while (!cards.empty()) {
        const std::size_t end = std::min(cards.find(' '), cards.size());
        if (!take_stock_of_frames(run, static_cast<int>(number_of(cards.substr(0, end)))))
            return false;
        cards.remove_prefix(std::min(end + 1, cards.size()));
    }
    return for_entries(broker_, broker_.key(scalers_key(run)), 0, [&](std::uint64_t, broker_value fields) {
        stock_.add_headers(run, broker_cost(bytes_of_fields(fields)));
    });
}

bool sender::take_stock_of_frames(const std::string &run, int card) {
    std::vector<std::string> keys;
    const bool read = for_entries(broker_, broker_.key(frames_key(run, card)), 0,
                                  [&](std::uint64_t frame, broker_value fields) {
                                      stock_.add_headers(run, broker_cost(bytes_of_fields(fields)));
                                      if (fields.field("lost").text() == "0")
                                          keys.push_back(broker_.key(payload_key(run, card, frame)));
                                  });
    for (const std::string &key : keys)
        broker_.append({"STRLEN", key});
    const auto expires = broker_stock::clock::now() + limits_.keep;
    for (const std::string &key : keys) {
        const broker_reply size = broker_.next();
        if (!size)
            return false;
        if (const auto bytes = size.integer(); bytes && *bytes > 0)
            stock_.add_payload(key, static_cast<std::size_t>(*bytes), expires);
    }
    return read;
}

// Payloads that were on their way when the connection was lost: they are sent again, or are no payloads of ours.
bool sender::forget_doubtful() {
    for (const outgoing &o : doubtful_) {
        const run_lane &lane = o.run->lanes[o.lane];
        if (lane.card < 0)
            continue;
        const broker_reply there =
            broker_.command({"XRANGE", lane.stream, entry_id(o.frame.frame), entry_id(o.frame.frame)});
        if (!there)
            return false;
        if (there.size() > 0)
            continue;
        stock_.forget_payload(payload_of(o));
        if (!broker_.command({"DEL", payload_of(o)}))
            return false;
    }
    doubtful_.clear();
    return true;
}

bool sender::recover_run(published_run &run) {
    const broker_reply meta =
        broker_.command({"HMGET", broker_.key(meta_key(run.id)), "epoch", "broker", "state"});
    if (!meta)
        return false;
    const auto epoch = static_cast<std::uint64_t>(std::max(0LL, meta.at(0).integer().value_or(0)));
    const bool same = epoch > 0 && epoch >= run.epoch && meta.at(1).text() == broker_run_;
    std::string gaps;
    for (run_lane &lane : run.lanes) {
        std::uint64_t told = 0;
        {
            const std::lock_guard guard(p_.mutex);
            told = p_.ring.account(lane.number).told();
        }
        if (!recover_lane(lane, told, gaps))
            return false;
    }
    std::erase(strangers_, run.id);
    const bool first = epoch == 0 && run.epoch == 0;
    if (same && gaps.empty()) {
        run.epoch = epoch;
        run.sealed = meta.at(2).text() == "sealed";
        return true;
    }
    run.epoch = std::max(epoch, run.epoch) + 1;
    run.sealed = false;
    if (!first) {
        const std::lock_guard guard(p_.mutex);
        ++p_.broker.epochs;
    }
    return announce(run, first ? "start" : "again", gaps) || (run.epoch--, false);
}

// Frames that it knows of and we do not have learnt, or the other way round: a gap.
bool sender::recover_lane(run_lane &lane, std::uint64_t told, std::string &gaps) {
    const broker_reply last = broker_.command({"XREVRANGE", lane.stream, "+", "-", "COUNT", "1"});
    if (!last)
        return false;
    const auto frame = frame_of_entry(last.at(0).at(0).text().value_or(""));
    const std::uint64_t there = frame ? *frame + 1 : 0;
    lane.known.clear();
    if (there < told)
        gaps += (gaps.empty() ? "" : " ") + (lane.card < 0 ? "scalers" : std::to_string(lane.card)) + ":" +
                std::to_string(there) + ".." + std::to_string(told - 1);
    return there <= told || read_fates(lane, told);
}

bool sender::read_fates(run_lane &lane, std::uint64_t from) {
    std::uint64_t next = from;
    return for_entries(broker_, lane.stream, from, [&](std::uint64_t frame, broker_value fields) {
        for (; next < frame; ++next)
            lane.known.push_back(true); // of a gap that was announced
        lane.known.push_back(fields.field("lost").text() != "0");
        ++next;
    });
}

void sender::apply_known() {
    const std::lock_guard guard(p_.mutex);
    for (const auto &run : p_.runs)
        for (run_lane &lane : run->lanes)
            while (!lane.known.empty() && p_.ring.account(lane.number).waiting() > 0) {
                p_.ring.told(lane.number, lane.known.front());
                lane.known.pop_front();
            }
}

// Runs that were left open by a publisher that is no more, once it is certain that they are not on here.
bool sender::seal_strangers() {
    {
        const std::lock_guard guard(p_.mutex);
        if (strangers_sealed_ || !p_.looked)
            return true;
        for (const auto &run : p_.runs)
            std::erase(strangers_, run->id);
    }
    for (const std::string &run : strangers_) {
        const broker_reply meta =
            broker_.command({"HMGET", broker_.key(meta_key(run)), "sent", "lost", "epoch"});
        const std::uint64_t sent = static_cast<std::uint64_t>(meta.at(0).integer().value_or(0));
        const std::uint64_t lost = static_cast<std::uint64_t>(meta.at(1).integer().value_or(0));
        std::vector<broker_words> commands(2);
        broker_words &seal = commands[0], &stop = commands[1];
        seal.text("HSET").text(broker_.key(meta_key(run))).field("state", std::string("sealed"));
        seal.field("end", std::string("cut")).field("frames", sent + lost);
        stop.text("XADD")
            .text(broker_.key("runs"))
            .text("*")
            .field("event", std::string("stop"))
            .field("run", run);
        stop.field("end", std::string("cut"))
            .field("frames", sent + lost)
            .field("sent", sent)
            .field("lost", lost);
        stop.field("epoch", std::string(meta.at(2).text().value_or("1")));
        if (!meta || together(commands) != 1)
            return false;
    }
    strangers_sealed_ = true;
    return true;
}

} // namespace kestrel::stream
