#include "stream/fits/worker.h"

#include "maths/peak_fit/results.h"
#include "stream/fits/keys.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <random>
#include <thread>
#include <unistd.h>

namespace kestrel::stream {

namespace {

using steady = std::chrono::steady_clock;
constexpr int nobody = -1; // in place of a session: standard output
constexpr auto beat_every = std::chrono::milliseconds(200);
constexpr auto present_every = std::chrono::seconds(1);
constexpr auto sweep_every = std::chrono::seconds(10);
constexpr const char *forgotten = "60000";         // ms without a word: its command would have claimed it
constexpr const char *wait_most = "1000";          // ms for a block
constexpr int most_tries = 20, most_refusals = 50; // of a result, on a connection and on all

void say(const std::string &line) {
    std::puts(line.c_str());
    std::fflush(stdout);
}

std::string new_name() {
    char host[64] = "";
    ::gethostname(host, sizeof host - 1);
    return std::string(host) + "-" + std::to_string(::getpid()) + "-" +
           std::to_string(std::random_device()() % 1000000);
}

int microseconds_since(steady::time_point begin) {
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(steady::now() - begin).count();
    return static_cast<int>(std::min<long long>(took, std::numeric_limits<int>::max()));
}

} // namespace

fit_worker::fit_worker(broker_site site, const volatile std::sig_atomic_t &quit)
    : broker_(std::move(site)), quit_(quit), name_(new_name()), stream_(fit_stream_key(broker_.site())),
      workers_(fit_workers_key(broker_.site())) {}

void fit_worker::refuse(const std::string &what, const std::string &cause) {
    say("! " + what + " is refused: " + cause);
}

bool fit_worker::connected() {
    if (broker_.ready()) {
        if (away_)
            say("# The broker " + broker_.site().text() + " is back");
        away_ = false;
        return true;
    }
    if (!away_)
        say("# The broker " + broker_.site().text() + " is away (" + broker_.cause() + "): trying again");
    away_ = true;
    std::this_thread::sleep_for(broker_back_off::shortest);
    return false;
}

void fit_worker::say_present() {
    if (steady::now() < present_at_)
        return;
    present_at_ = steady::now() + present_every;
    const std::string now = std::to_string(fit_broker_time(broker_));
    broker_.command({"ZADD", workers_, now, name_});
    broker_.command({"PEXPIRE", workers_, fit_stream_life});
}

void fit_worker::make_group() {
    broker_.command({"XGROUP", "CREATE", stream_, fit_group, "0", "MKSTREAM"});
    broker_.command({"PEXPIRE", stream_, fit_stream_life});
}

// [id, [name, value, ...]] in a reply; what is no block of a job is taken out of the stream.
std::optional<fit_worker::entry> fit_worker::entry_of(broker_reply &reply, broker_value value) {
    const auto id = value.at(0).text();
    if (!id)
        return std::nullopt;
    const auto job = fit_id_of(value.at(1).field("job").text().value_or(""));
    const auto block = value.at(1).field("block").text();
    if (job && block)
        return entry{std::move(reply), std::string(*id), *block, *job};
    refuse("Entry " + std::string(*id), "it is no block of a job");
    drop(std::string(*id));
    return std::nullopt;
}

std::optional<fit_worker::entry> fit_worker::next_entry() {
    const auto asked = steady::now();
    broker_reply reply = broker_.command(
        {"XREADGROUP", "GROUP", fit_group, name_, "COUNT", "1", "BLOCK", wait_most, "STREAMS", stream_, ">"});
    const std::string error(reply.error().value_or(""));
    if (error.starts_with("NOGROUP"))
        make_group();
    else if (!error.empty() && error != refusal_)
        refuse("Asking for a block", error); // once
    refusal_ = error;
    const broker_value block = reply.at(0).at(1).at(0); // of one stream, one entry
    if (!block && steady::now() < asked + broker_back_off::shortest)
        std::this_thread::sleep_for(broker_back_off::shortest); // it has not waited
    return entry_of(reply, block);
}

// A block that a worker took whose command has not claimed it either: of a job that is gone, mostly.
std::optional<fit_worker::entry> fit_worker::forgotten_entry() {
    if (steady::now() < sweep_at_)
        return std::nullopt;
    broker_reply reply =
        broker_.command({"XAUTOCLAIM", stream_, fit_group, name_, forgotten, "0", "COUNT", "1"});
    std::optional<entry> found = entry_of(reply, reply.at(1).at(0));
    if (!found)
        sweep_at_ = steady::now() + sweep_every;
    return found;
}

// False when the block cannot be fitted; it is left to others where the broker will not say what the job is.
bool fit_worker::know_job(const entry &e) {
    if (job_ && job_->id == e.job)
        return true;
    const broker_reply bytes = broker_.command({"GET", fit_keys_of(broker_.site(), e.job).job});
    std::string cause(bytes.error().value_or(""));
    job_ = bytes.text() ? fit_decode_job(*bytes.text(), e.job, cause) : std::nullopt;
    if (!cause.empty())
        refuse("Job " + fit_id_text(e.job), cause);
    if (!job_) {
        if (!bytes.error())
            drop(e.id); // its job has ended
        return false;
    }
    job_->request.cn = nobody;
    job_->request.stopped = taken_away;
    job_->request.user = this;
    return true;
}

void fit_worker::drop(const std::string &entry_id) {
    broker_.commands({{"XACK", stream_, fit_group, entry_id}, {"XDEL", stream_, entry_id}});
}

// Told by the way, so that the command knows that somebody works on the block.
bool fit_worker::is_still_ours() {
    if (steady::now() < beat_at_ || !broker_.is_connected())
        return !lost_;
    beat_at_ = steady::now() + beat_every;
    say_present();
    const broker_reply ours = broker_.command({"XCLAIM", stream_, fit_group, name_, "0", at_hand_, "JUSTID"});
    lost_ = ours && ours.size() == 0;
    return !lost_;
}

bool fit_worker::taken_away(const void *worker) {
    // The solver hands its user on as it got it, from know_job().
    return !static_cast<fit_worker *>(const_cast<void *>(worker))->is_still_ours();
}

// Ends early when the block is taken away.
fit_result fit_worker::fit(const fit_block &block) {
    fit_result result{block.number, 0, {}};
    const auto begin = steady::now();
    peak_fit_point point;
    for (int s = 0; s < block.spectra.ns; ++s)
        for (int q = block.q1; q <= block.q2 && is_still_ours(); ++q) {
            const peak_fit_fitted fitted = point.fit(job_->request, block.spectra, q, s, q);
            result.points.push_back({fitted.status, fitted.near_ends, fitted.high_at_ends,
                                     peak_fit_values(fitted, job_->request.lines, point.spectrum)});
        }
    result.microseconds = microseconds_since(begin);
    return result;
}

void fit_worker::work(const entry &e) {
    std::string cause;
    if (!know_job(e))
        return;
    const std::optional<fit_block> block = fit_decode_block(e.block, *job_, counts_, cause);
    if (!block) {
        refuse("Block " + e.id, cause);
        drop(e.id);
        return;
    }
    at_hand_ = e.id;
    lost_ = false;
    beat_at_ = steady::now() + beat_every;
    const fit_result result = fit(*block);
    if (lost_)
        return;
    const std::string bytes = fit_encode_result(e.job, result);
    int refusals = 0;
    while (!store(e, result.number, bytes) && quit_ == 0)
        if (connected() && ++refusals == most_refusals) // or waits a little
            return refuse("Result of block " + e.id, "the broker does not take it");
}

// All or nothing, and nothing once the job has ended: that a key of its is touched meanwhile means trying again.
bool fit_worker::store(const entry &e, int number, std::string_view result) {
    const fit_keys keys = fit_keys_of(broker_.site(), e.job);
    const std::string field = std::to_string(number);
    for (int i = 0; i < most_tries && broker_.is_connected(); ++i) {
        if (broker_.commands({{"WATCH", keys.job}, {"EXISTS", keys.job}}).integer() == 0) {
            broker_.command({"UNWATCH"});
            drop(e.id);
            return broker_.is_connected();
        }
        const broker_reply done = broker_.commands({{"MULTI"},
                                                    {"HSETNX", keys.results, field, result},
                                                    {"PEXPIRE", keys.results, fit_job_life},
                                                    {"RPUSH", keys.done, field},
                                                    {"PEXPIRE", keys.done, fit_job_life},
                                                    {"XACK", stream_, fit_group, e.id},
                                                    {"XDEL", stream_, e.id},
                                                    {"EXEC"}});
        if (done.error()) {
            refuse("Result of block " + e.id, std::string(*done.error()));
            return true;
        }
        if (done.size() > 0)
            return true;
    }
    return false;
}

void fit_worker::run() {
    while (quit_ == 0) {
        if (!connected())
            continue;
        say_present();
        std::optional<entry> found = forgotten_entry();
        if (!found)
            found = next_entry();
        if (found)
            work(*found);
    }
    broker_.command({"ZREM", workers_, name_});
    // A block that is still in its hands would be lost with it.
    if (broker_.is_connected() &&
        broker_.command({"XPENDING", stream_, fit_group, "-", "+", "1", name_}).size() == 0)
        broker_.command({"XGROUP", "DELCONSUMER", stream_, fit_group, name_});
}

} // namespace kestrel::stream
