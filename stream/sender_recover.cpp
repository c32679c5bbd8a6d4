// stream: what the broker has, asked after each connection that was made. It may be the same broker, one that was started
// anew with or without its data, or a replica that has become the master: what it says is what counts.
#include "stream/read_entries.h"
#include "stream/sender.h"

#include <algorithm>
#include <charconv>

namespace kestrel::stream {

namespace {

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

} // namespace

bool sender::recover() {
    telling_.frames.clear(); // they are doubtful now
    {
        const std::lock_guard guard(p_.mutex);
        ++p_.broker.connections;
    }
    if (!read_broker())
        return false;
    const bool counted = !has_stock_; // with the rest
    if (!take_stock() || !forget_doubtful(counted))
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
        const broker_value &silent = server.text() ? memory : server;
        broker_.refuse("the broker does not tell of itself: " +
                       std::string(silent.error().value_or("no INFO")));
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

// Frames that were on their way when the connection was lost. What the broker was told of counts; a payload that it was not
// told of is sent again, or is no payload of ours. Each is looked at once: the broker may fail in between.
bool sender::forget_doubtful(bool counted) {
    if (doubtful_.empty())
        return true;
    for (; !doubtful_.empty(); doubtful_.pop_back())
        if (!forget(doubtful_.back(), counted)) {
            has_stock_ = has_stock_ && !counted;
            return false;
        }
    return static_cast<bool>(broker_.command({"UNWATCH"}));
}

// A broker that was late may do what the lost connection told it while we ask: then the payload stays.
bool sender::forget(const outgoing &o, bool counted) {
    const run_lane &lane = o.run->lanes[o.lane];
    const std::string id = entry_id(o.frame.frame);
    const broker_reply there = broker_.commands({{"WATCH", lane.stream}, {"XRANGE", lane.stream, id, id}});
    if (!has_said(there))
        return false;
    if (there.size() > 0 && !counted)
        stock_.add_headers(o.run->id, broker_cost(bytes_of_fields(there.at(0).at(1))));
    if (there.size() > 0 || lane.card < 0)
        return true;
    std::vector<broker_words> del(1);
    del[0].text("DEL").text(payload_of(o));
    if (together(del) != 1)
        return false;
    stock_.forget_payload(payload_of(o));
    return true;
}

bool sender::recover_run(published_run &run) {
    const broker_reply meta =
        broker_.command({"HMGET", broker_.key(meta_key(run.id)), "epoch", "broker", "state"});
    if (!has_said(meta))
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
        std::uint64_t places = 0; // of the scalers' lane: all cards'
        for (const card_shape &card : run.cards)
            if (lane.card < 0 || lane.card == card.index)
                places = std::max<std::uint64_t>(places, card.places);
        if (!recover_lane(lane, told, places, gaps))
            return false;
    }
    std::erase(strangers_, run.id);
    const bool first = epoch == 0 && run.epoch == 0;
    const bool goes_on = same && gaps.empty();
    const std::uint64_t before = run.epoch;
    {
        const std::lock_guard guard(p_.mutex);
        run.epoch = goes_on ? epoch : std::max(epoch, run.epoch) + 1;
        run.sealed = goes_on && meta.at(2).text() == "sealed";
        p_.broker.epochs += goes_on || first ? 0 : 1;
    }
    if (goes_on)
        stock_.add_run(run.id); // also one whose announcement was taken, but not answered
    if (goes_on || announce(run, first ? "start" : "again", gaps))
        return true;
    {
        const std::lock_guard guard(p_.mutex);
        run.epoch = before;
    }
    give_way();
    return false;
}

// Frames that it knows of and we do not have learnt, or the other way round: a gap.
bool sender::recover_lane(run_lane &lane, std::uint64_t told, std::uint64_t places, std::string &gaps) {
    const broker_reply last = broker_.command({"XREVRANGE", lane.stream, "+", "-", "COUNT", "1"});
    if (!has_said(last))
        return false;
    const auto frame = frame_of_entry(last.at(0).at(0).text().value_or(""));
    const std::uint64_t there = frame ? *frame + 1 : 0;
    lane.known.clear();
    if (there < told)
        gaps += (gaps.empty() ? "" : " ") + (lane.card < 0 ? "scalers" : std::to_string(lane.card)) + ":" +
                std::to_string(there) + ".." + std::to_string(told - 1);
    return there <= told || read_fates(lane, told, std::min(there, places));
}

// Frames that the run has no place for are somebody else's; behind them the stream takes none of ours.
bool sender::read_fates(run_lane &lane, std::uint64_t from, std::uint64_t end) {
    std::uint64_t next = from;
    const auto lost_until = [&](std::uint64_t frame) {
        for (; next < frame; ++next)
            lane.known.push_back(true); // of a gap that was announced
    };
    const bool read = for_entries(broker_, lane.stream, from, [&](std::uint64_t frame, broker_value fields) {
        lost_until(std::min(frame, end));
        if (frame >= end)
            return;
        lane.known.push_back(fields.field("lost").text() != "0");
        ++next;
    });
    lost_until(end);
    return read;
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

} // namespace kestrel::stream
