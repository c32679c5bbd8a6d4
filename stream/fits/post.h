// stream/fits: a command's side of the broker: a job is laid out there, its blocks are sent, its results fetched. Knows
// no session. Where a function cannot do its work, the broker is gone (is_connected() is false) or refuses (refusal()).
#pragma once

#include "stream/fits/keys.h"

#include <chrono>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::stream {

class fit_post {
  public:
    fit_post(broker_site site, const fit_job &job);

    broker &connection() { return broker_; }
    // What the broker said instead of doing something; empty when it did all.
    const std::string &refusal() const { return refusal_; }

    // Lays out the job (again), without results.
    bool announce();
    // The block's place in the stream; empty when it has none.
    std::string send(std::string_view block);
    // Waits a tenth of a second for a block that is done: its number, and what is said to be its result.
    struct answer {
        int number = -1;
        std::string bytes;
    };
    answer take();
    // Takes blocks out of the stream.
    void withdraw(std::span<const std::string> entries);
    // Those of the blocks whose worker has said nothing for so long.
    std::vector<std::string> claim(std::span<const std::string> entries, std::chrono::milliseconds patience);
    // Prolongs the life of all keys, and says what the broker has: the job, with blocks in some worker's hands or done;
    // the job alone; or less.
    enum class holding { work, job, nothing };
    holding keep_alive();
    // How many have said lately that they work; -1 when that cannot be told.
    int workers();
    // Removes what the job has at the broker, and the names of workers that are gone for long.
    void remove(std::span<const std::string> entries);

  private:
    broker_reply ask(std::span<const std::string_view> words);
    broker_reply ask(std::initializer_list<std::string_view> words) {
        return ask(std::span(words.begin(), words.size()));
    }
    void note(const broker_value &reply);
    void forget_workers();

    broker broker_;
    std::string id_, job_, stream_, workers_, consumer_, refusal_;
    fit_keys keys_;
};

} // namespace kestrel::stream
