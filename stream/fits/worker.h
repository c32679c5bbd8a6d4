// stream/fits: a worker: takes blocks of spectra from a broker, one at a time, fits them on the calling thread and leaves
// the results there. Prints to standard output.
#pragma once

#include "stream/broker.h"
#include "stream/fits/message.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::stream {

class fit_worker {
  public:
    // Ends after the block at hand once `quit` is not 0.
    fit_worker(broker_site site, const volatile std::sig_atomic_t &quit);
    void run();
    const std::string &name() const { return name_; }

  private:
    struct entry {
        broker_reply reply; // in which the block lies
        std::string id;
        std::string_view block;
        std::uint64_t job = 0;
    };
    bool connected();
    std::optional<entry> next_entry();
    std::optional<entry> forgotten_entry();
    std::optional<entry> entry_of(broker_reply &reply, broker_value value);
    void make_group();
    void say_present();
    void work(const entry &e);
    bool know_job(const entry &e);
    fit_result fit(const fit_block &block);
    bool store(const entry &e, int number, std::string_view result);
    void drop(const std::string &entry_id);
    bool is_still_ours();
    static bool taken_away(const void *worker);
    void refuse(const std::string &what, const std::string &cause);

    broker broker_;
    const volatile std::sig_atomic_t &quit_;
    std::string name_, stream_, workers_;
    std::string refusal_;               // what the broker said last when it was asked for a block
    std::optional<fit_job> job_;        // of the block before
    std::vector<std::uint32_t> counts_; // the block's, unpacked: kept, so that its memory is
    std::string at_hand_;               // the entry of the block that is being fitted
    bool lost_ = false;                 // and it is somebody else's by now
    bool away_ = false;                 // the broker; and its line is printed
    std::chrono::steady_clock::time_point beat_at_{}, sweep_at_{}, present_at_{};
};

} // namespace kestrel::stream
