// stream/fits: the book of a job's blocks: which points each has, which is waiting, sent, done or given up, and how large
// the next one is: towards the end smaller ones, so that the workers end together. Pure: no broker, no clock.
#pragma once

#include "stream/fits/message.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::stream {

enum class block_state { waiting, sent, done, given_up };

class fit_ledger {
  public:
    static constexpr int most_failures = 3;                          // of workers over a block
    static constexpr std::chrono::milliseconds long_enough{200};     // for a block
    static constexpr std::chrono::milliseconds least_patience{1000}; // with a worker that says nothing
    static constexpr int first_points = 4;                           // of a block while no time is known
    static constexpr std::size_t most_block_bytes = std::size_t{4} << 20;
    static constexpr std::size_t most_block_spectra = std::size_t{64} << 20; // unpacked, at a worker
    static constexpr std::size_t most_bytes_out = std::size_t{64} << 20;

    struct block {
        fit_box box;
        block_state state = block_state::waiting;
        int failures = 0;
        std::string entry; // its place in the stream while it is sent
        std::size_t bytes = 0;
    };

    // All points q1..q2 by ns, whose spectra have that many bytes each; what is sent may be less.
    fit_ledger(int q1, int q2, int ns, std::size_t point_bytes);

    // The block to send next, for so many workers; nothing when enough are out or none is left.
    std::optional<int> next(int workers);
    void sent(int number, std::string_view entry, std::size_t bytes);
    // A good result came: false when the block was done before.
    bool finished(int number, int microseconds);
    // A worker ended over the block, or what it said was nonsense.
    void failed(int number);
    // The broker may have lost everything: what is sent waits again.
    void all_again();

    bool knows(int number) const { return number >= 0 && static_cast<std::size_t>(number) < blocks_.size(); }
    const block &at(int number) const { return blocks_[static_cast<std::size_t>(number)]; }
    std::vector<int> in_state(block_state state) const;
    int points_done() const { return points_done_; }
    bool settled() const { return s_ == ns_ && waiting_.empty() && sent_ == 0; }
    // How long a worker may say nothing of its block: three times the longest one, and no less than least_patience.
    std::chrono::milliseconds patience() const;

  private:
    block &mutable_at(int number) { return blocks_[static_cast<std::size_t>(number)]; }
    void leave(int number); // the state that the block is in
    int points_of_next(int workers) const;
    int cut(int workers);

    int q1_, q2_, ns_;
    int q_, s_ = 0; // the first point that is in no block; s_ == ns_ when all are
    std::size_t point_bytes_;
    std::size_t all_bytes_ = 0, all_points_ = 0; // that were sent
    std::vector<block> blocks_;
    std::deque<int> waiting_;
    int sent_ = 0;
    std::size_t bytes_out_ = 0;
    int points_done_ = 0;
    long long timed_points_ = 0, timed_microseconds_ = 0;
    int longest_ = 0; // microseconds
};

} // namespace kestrel::stream
