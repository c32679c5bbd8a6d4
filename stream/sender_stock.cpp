// stream: what of ours the broker keeps from a life before this one, of it or of us.
#include "stream/read_entries.h"
#include "stream/sender.h"

#include <algorithm>
#include <charconv>

namespace kestrel::stream {

namespace {

std::size_t number_of(std::string_view text) {
    std::size_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

} // namespace

// Of each run in the list, once in each life of the broker.
bool sender::take_stock() {
    if (has_stock_)
        return true;
    stock_.clear();
    strangers_.clear();
    strangers_sealed_ = false;
    const broker_reply runs = broker_.command({"XRANGE", broker_.key("runs"), "-", "+"});
    if (!has_answered(runs, broker_.key("runs")))
        return false;
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
    if (!has_said(meta))
        return false;
    if (meta.size() == 0) // its entries in the list are all that is left of it
        return is_here(run) || remove_run(run);
    stock_.add_run(run);
    stock_.add_headers(run, 2 * broker_cost(bytes_of_fields(meta)));
    if (meta.field("state").text() != "sealed")
        strangers_.push_back(run);
    std::string_view cards = meta.field("cards").text().value_or("");
    payloads_by_age payloads;
    while (!cards.empty()) {
        const std::size_t end = std::min(cards.find(' '), cards.size());
        if (!take_stock_of_frames(run, static_cast<int>(number_of(cards.substr(0, end))), payloads))
            return false;
        cards.remove_prefix(std::min(end + 1, cards.size()));
    }
    std::ranges::stable_sort(payloads, {}, &payloads_by_age::value_type::first);
    if (!take_stock_of_payloads(payloads))
        return false;
    return for_entries(broker_, broker_.key(scalers_key(run)), 0, [&](std::uint64_t, broker_value fields) {
        stock_.add_headers(run, broker_cost(bytes_of_fields(fields)));
    });
}

bool sender::take_stock_of_frames(const std::string &run, int card, payloads_by_age &payloads) {
    return for_entries(broker_, broker_.key(frames_key(run, card)), 0,
                       [&](std::uint64_t frame, broker_value fields) {
                           stock_.add_headers(run, broker_cost(bytes_of_fields(fields)));
                           if (fields.field("lost").text() == "0")
                               payloads.emplace_back(fields.field("time").integer().value_or(0),
                                                     broker_.key(payload_key(run, card, frame)));
                       });
}

bool sender::take_stock_of_payloads(const payloads_by_age &payloads) {
    for (const auto &[time, key] : payloads)
        broker_.append({"STRLEN", key});
    const auto expires = broker_stock::clock::now() + limits_.keep;
    for (const auto &[time, key] : payloads) {
        const broker_reply size = broker_.next();
        if (!has_said(size))
            return false;
        if (const auto bytes = size.integer(); bytes && *bytes > 0)
            stock_.add_payload(key, static_cast<std::size_t>(*bytes), expires);
    }
    return true;
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
        seal.text("HSET").text(broker_.key(meta_key(run))).field("state", "sealed");
        seal.field("end", "cut").field("frames", sent + lost);
        stop.text("XADD").text(broker_.key("runs")).text("*").field("event", "stop").field("run", run);
        stop.field("end", "cut").field("frames", sent + lost).field("sent", sent).field("lost", lost);
        stop.field("epoch", std::string(meta.at(2).text().value_or("1")));
        if (!meta || together(commands) != 1)
            return false;
    }
    strangers_sealed_ = true;
    return true;
}

} // namespace kestrel::stream
