#include "stream/fits/post.h"

#include <algorithm>
#include <climits>

namespace kestrel::stream {

namespace {

constexpr long long lately = 3000, long_ago = 600000; // ms
constexpr long long most_workers = 100000;

} // namespace

fit_post::fit_post(broker_site site, const fit_job &job)
    : broker_(std::move(site)), id_(fit_id_text(job.id)), job_(fit_encode_job(job)),
      stream_(fit_stream_key(broker_.site())), workers_(fit_workers_key(broker_.site())),
      consumer_("command-" + id_), keys_(fit_keys_of(broker_.site(), job.id)) {}

void fit_post::note(const broker_value &reply) {
    if (const auto error = reply.error())
        refusal_ = *error;
}

broker_reply fit_post::ask(std::span<const std::string_view> words) {
    broker_reply reply = broker_.command(words);
    note(reply);
    return reply;
}

bool fit_post::announce() {
    ask({"DEL", keys_.results, keys_.done});
    ask({"SET", keys_.job, job_, "PX", fit_job_life});
    const broker_reply made = broker_.command({"XGROUP", "CREATE", stream_, fit_group, "0", "MKSTREAM"});
    if (!made.error().value_or("").starts_with("BUSYGROUP"))
        note(made);
    ask({"PEXPIRE", stream_, fit_stream_life});
    return broker_.is_connected() && refusal_.empty();
}

std::string fit_post::send(std::string_view block) {
    const broker_reply entry = ask({"XADD", stream_, "*", "job", id_, "block", block});
    return std::string(entry.text().value_or(""));
}

fit_post::answer fit_post::take() {
    const broker_reply popped = ask({"BLPOP", keys_.done, "0.1"});
    const auto number = popped.at(1).integer();
    if (!number || *number < 0 || *number > INT_MAX)
        return {};
    const std::string field = std::to_string(*number);
    broker_.append({"HGET", keys_.results, field});
    broker_.append({"HDEL", keys_.results, field});
    const broker_reply bytes = broker_.next();
    note(bytes);
    note(broker_.next());
    if (!bytes.text())
        return {};
    return {static_cast<int>(*number), std::string(*bytes.text())};
}

void fit_post::withdraw(std::span<const std::string> entries) {
    if (entries.empty())
        return;
    std::vector<std::string_view> acknowledge{"XACK", stream_, fit_group}, remove{"XDEL", stream_};
    acknowledge.insert(acknowledge.end(), entries.begin(), entries.end());
    remove.insert(remove.end(), entries.begin(), entries.end());
    ask(remove); // first: nobody takes what is there no more
    ask(acknowledge);
}

std::vector<std::string> fit_post::claim(std::span<const std::string> entries,
                                         std::chrono::milliseconds patience) {
    std::vector<std::string> claimed;
    if (entries.empty())
        return claimed;
    const std::string idle = std::to_string(patience.count());
    std::vector<std::string_view> words{"XCLAIM", stream_, fit_group, consumer_, idle};
    words.insert(words.end(), entries.begin(), entries.end());
    words.push_back("JUSTID");
    const broker_reply taken = broker_.command(words); // an error: the group is gone, which keep_alive() sees
    for (std::size_t i = 0; i < taken.size(); ++i)
        claimed.emplace_back(taken.at(i).text().value_or(""));
    return claimed;
}

// A worker that ends a block gives it out of its hands and says so in the list, in one transaction.
fit_post::holding fit_post::keep_alive() {
    ask({"PEXPIRE", keys_.results, fit_job_life});
    ask({"PEXPIRE", keys_.done, fit_job_life});
    ask({"MULTI"});
    ask({"PEXPIRE", keys_.job, fit_job_life});
    ask({"PEXPIRE", stream_, fit_stream_life});
    ask({"XPENDING", stream_, fit_group});
    ask({"LLEN", keys_.done});
    const broker_reply all = ask({"EXEC"});
    if (all.size() != 4)
        return holding::work; // not known: the broker is gone, or refuses
    if (all.at(0).integer() != 1 || all.at(1).integer() != 1 || all.at(2).error())
        return holding::nothing;
    return all.at(2).at(0).integer() == 0 && all.at(3).integer() == 0 ? holding::job : holding::work;
}

int fit_post::workers() {
    const std::string then = std::to_string(fit_broker_time(broker_) - lately);
    const broker_reply count = ask({"ZCOUNT", workers_, then, "+inf"});
    return static_cast<int>(std::clamp<long long>(count.integer().value_or(-1), -1, most_workers));
}

void fit_post::forget_workers() {
    const std::string then = std::to_string(fit_broker_time(broker_) - long_ago);
    ask({"ZREMRANGEBYSCORE", workers_, "-inf", then});
    const broker_reply consumers = broker_.command({"XINFO", "CONSUMERS", stream_, fit_group});
    for (std::size_t i = 0; i < consumers.size(); ++i) {
        const auto name = consumers.at(i).field("name").text();
        if (name && consumers.at(i).field("idle").integer() > long_ago &&
            consumers.at(i).field("pending").integer() == 0)
            ask({"XGROUP", "DELCONSUMER", stream_, fit_group, *name});
    }
}

void fit_post::remove(std::span<const std::string> entries) {
    ask({"DEL", keys_.job, keys_.results, keys_.done});
    withdraw(entries);
    ask({"XGROUP", "DELCONSUMER", stream_, fit_group, consumer_});
    forget_workers();
}

} // namespace kestrel::stream
