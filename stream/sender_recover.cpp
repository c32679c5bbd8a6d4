// stream: what the broker has, asked after each connection that was made. It may be the same broker, one that was started
// anew with or without its data, or a replica that has become the master: what it says is what counts.
#include "stream/read_entries.h"
#include "stream/sender.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

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

constexpr std::chrono::seconds look_every{1};
constexpr const char *claim_ms = "10000"; // how long a prefix is a machine's that says nothing more

std::string names_of(const std::vector<run_gap> &gaps) {
    std::string names;
    for (const run_gap &gap : gaps)
        names += (names.empty() ? "" : " ") + (gap.card < 0 ? "scalers" : std::to_string(gap.card)) + ":" +
                 std::to_string(gap.from) + ".." + std::to_string(gap.end - 1);
    return names;
}

} // namespace

// Whose modules a publisher sees: its host, for people, and which shared memory of which life of the machine it is.
std::string sender::machine_name() {
    char host[256] = "";
    ::gethostname(host, sizeof host - 1);
    std::string boot;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> boot;
    struct stat memory {};
    ::stat("/dev/shm", &memory);
    return std::string(host) + " " + boot + "-" + std::to_string(memory.st_dev);
}

bool sender::recover() {
    telling_.frames.clear(); // they are doubtful now
    {
        const std::lock_guard guard(p_.mutex);
        ++p_.broker.connections;
    }
    if (!read_broker() || !claim_prefix())
        return false;
    const bool counted = !has_stock_; // with the rest
    if (!take_stock() || !forget_doubtful(counted))
        return false;
    return std::ranges::all_of(all_runs(), [this](const auto &run) { return recover_run(run); });
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

// Two machines under one prefix would end each other's runs, and count each other's bytes as their own. Where the broker does
// not say whose the prefix is, it is ours.
bool sender::claim_prefix() {
    const std::string key = broker_.key("publisher");
    const broker_reply whose = broker_.commands({{"SET", key, machine_, "NX", "PX", claim_ms}, {"GET", key}});
    const std::string_view name = whose.text().value_or(machine_);
    if (name == machine_)
        return static_cast<bool>(broker_.command({"PEXPIRE", key, claim_ms}));
    broker_.refuse("another machine's publisher writes under this prefix: " +
                   std::string(name.substr(0, name.find(' '))));
    return false;
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

// Whether its payload is sent again, to the same place.
bool sender::is_to_be_sent(const outgoing &o) const {
    const auto lane = o.run->lanes[o.lane].number;
    const std::lock_guard guard(p_.mutex);
    const std::uint64_t told = p_.ring.account(lane).told();
    const auto next = o.frame.frame < told ? std::nullopt : p_.ring.next(lane, o.frame.frame - told);
    return next && next->contents;
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
    stock_.forget_payload(payload_of(o));
    std::vector<broker_words> del(1);
    del[0].text("DEL").text(payload_of(o));
    return is_to_be_sent(o) || together(del) == 1;
}

// What stands under a name of ours and is of another type goes.
bool sender::has_answered(const broker_value &reply, const std::string &key) {
    if (has_said(reply))
        return !reply.error() || remove(broker_words().text("DEL").text(key));
    if (const auto error = reply.error())
        broker_.refuse(std::string(*error));
    return false;
}

// Asked in one go, with an eye on it from before the answers on.
bool sender::recover_run(const std::shared_ptr<published_run> &of) {
    published_run &run = *of;
    const std::string hash = broker_.key(meta_key(run.id)), list = broker_.key("runs");
    append_watch({&of, 1});
    broker_.append({"HMGET", hash, "epoch", "broker", "state", "shapes"});
    const bool known = !run.entry.empty();
    broker_.append({"XRANGE", list, known ? run.entry : "-", known ? run.entry : "+", "COUNT", "1"});
    for (const run_lane &lane : run.lanes)
        broker_.append({"XREVRANGE", lane.stream, "+", "-", "COUNT", "1"});
    broker_.next();
    const broker_reply meta = broker_.next(), listed = broker_.next();
    std::vector<broker_reply> last;
    for (std::size_t lane = 0; lane < run.lanes.size(); ++lane)
        last.push_back(broker_.next());
    if (!has_answered(meta, hash) || !has_answered(listed, list))
        return false;
    std::vector<run_gap> gaps;
    for (std::size_t lane = 0; lane < run.lanes.size(); ++lane)
        if (!recover_lane(run, run.lanes[lane], last[lane], gaps))
            return false;
    return go_on(run, meta, listed.size() > 0, gaps);
}

// With what the broker has of the run, or with another epoch of it.
bool sender::go_on(published_run &run, const broker_value &meta, bool is_listed,
                   const std::vector<run_gap> &gaps) {
    const auto epoch = static_cast<std::uint64_t>(std::max(0LL, meta.at(0).integer().value_or(0)));
    const bool newer = epoch > run.epoch; // another publisher's, who has told of it
    const bool same = epoch > 0 && (newer || (epoch == run.epoch && is_listed)) &&
                      meta.at(1).text() == broker_run_ && meta.at(3).text();
    const bool first = epoch == 0 && run.epoch == 0;
    const std::string names = names_of(gaps);
    const bool goes_on = same && (names.empty() || names == run.gaps); // it was told of them
    const std::uint64_t before = run.epoch;
    {
        const std::lock_guard guard(p_.mutex);
        run.epoch = goes_on ? epoch : std::max(epoch, run.epoch) + 1;
        run.sealed = goes_on && meta.at(2).text() == "sealed";
    }
    std::erase(strangers_, run.id);
    has_stock_ = has_stock_ && (goes_on || first);
    if (goes_on)
        stock_.add_run(run.id); // also one whose announcement was taken, but not answered
    if (newer)
        run.entry.clear();
    const auto removed = [&](const run_gap &gap) { return remove_payloads(run.id, gap); };
    if (goes_on || (std::ranges::all_of(gaps, removed) && announce(run, first ? "start" : "again", names)))
        return true;
    {
        const std::lock_guard guard(p_.mutex);
        run.epoch = before;
    }
    give_way();
    return false;
}

// Frames that it knows of and we do not have learnt, or the other way round: a gap.
bool sender::recover_lane(const published_run &run, run_lane &lane, const broker_value &last,
                          std::vector<run_gap> &gaps) {
    if (!has_answered(last, lane.stream))
        return false;
    std::uint64_t told = 0, places = 0; // of the scalers' lane: all cards'
    {
        const std::lock_guard guard(p_.mutex);
        told = p_.ring.account(lane.number).told();
    }
    for (const card_shape &card : run.cards)
        if (lane.card < 0 || lane.card == card.index)
            places = std::max<std::uint64_t>(places, card.places);
    const auto frame = frame_of_entry(last.at(0).at(0).text().value_or(""));
    const std::uint64_t there = frame ? *frame + 1 : 0;
    lane.known.clear();
    if (there < told)
        gaps.push_back({lane.card, there, told});
    return there <= told || read_fates(lane, told, std::min(there, places));
}

// Counts whose headers are gone; nobody would find them.
bool sender::remove_payloads(const std::string &run, const run_gap &gap) {
    constexpr std::size_t names_at_once = 1000;
    for (std::uint64_t frame = gap.from; gap.card >= 0 && frame < gap.end;) {
        broker_words del;
        for (del.text("DEL"); frame < gap.end && del.count() <= names_at_once; ++frame)
            del.text(broker_.key(payload_key(run, gap.card, frame)));
        if (!remove(del))
            return false;
    }
    return true;
}

// Once in a while, also when there is nothing to tell: the connection may have gone, or what stands there.
void sender::look_after() {
    const auto now = std::chrono::steady_clock::now();
    if (!broker_.is_connected() || now < looked_ + look_every)
        return;
    looked_ = now;
    broker_.command({"UNWATCH"}); // each run is watched again before it is asked for
    if (!claim_prefix())
        return;
    for (const auto &run : all_runs())
        if (run->epoch > 0 && !recover_run(run))
            return;
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
