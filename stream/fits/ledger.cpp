#include "stream/fits/ledger.h"

#include <algorithm>

namespace kestrel::stream {

namespace {

constexpr int sent_before_a_time_is_known = 4;
constexpr long long blocks_left_a_worker = 4; // of what is in no block yet
constexpr long long smallest = 10;            // a block's share of a long one

} // namespace

fit_ledger::fit_ledger(int q1, int q2, int ns, std::size_t point_bytes)
    : q1_(q1), q2_(q2), ns_(ns), q_(q1), point_bytes_(std::max<std::size_t>(point_bytes, 1)) {}

int fit_ledger::points_of_next(int workers) const {
    const std::size_t bytes = all_points_ == 0 ? point_bytes_ : (all_bytes_ + all_points_ - 1) / all_points_;
    const std::size_t most = std::min(most_block_bytes / bytes, most_block_spectra / point_bytes_);
    const auto by_bytes = static_cast<int>(std::clamp<std::size_t>(most, 1, fit_most_points));
    if (timed_points_ == 0)
        return std::min(first_points, by_bytes);
    const long long wanted = std::chrono::microseconds(long_enough).count() * timed_points_ /
                             std::max(timed_microseconds_, timed_points_);
    const long long nq = q2_ - q1_ + 1, left = (ns_ - s_) * nq - (q_ - q1_);
    const long long share = left / (blocks_left_a_worker * std::max(workers, 1));
    return static_cast<int>(
        std::clamp<long long>(std::min(wanted, std::max(share, wanted / smallest)), 1, by_bytes));
}

// Whole rows of the scan where a block is long enough for them, else a piece of one.
int fit_ledger::cut(int workers) {
    const int most = points_of_next(workers), nq = q2_ - q1_ + 1;
    fit_box box{q_, std::min(q2_, q_ + most - 1), s_, s_};
    if (q_ == q1_ && most >= nq)
        box.s2 = std::min(ns_ - 1, s_ + most / nq - 1);
    q_ = box.q2 + 1;
    if (q_ > q2_) {
        q_ = q1_;
        s_ = box.s2 + 1;
    }
    blocks_.push_back({box, block_state::waiting, 0, {}, 0});
    return static_cast<int>(blocks_.size()) - 1;
}

std::optional<int> fit_ledger::next(int workers) {
    const int enough = timed_points_ == 0 ? sent_before_a_time_is_known : 2 * workers + 8;
    if (sent_ >= enough || bytes_out_ >= most_bytes_out)
        return std::nullopt;
    if (!waiting_.empty())
        return waiting_.front();
    if (s_ == ns_)
        return std::nullopt;
    const int number = cut(workers);
    waiting_.push_back(number);
    return number;
}

void fit_ledger::leave(int number) {
    const block &b = at(number);
    if (b.state == block_state::waiting)
        std::erase(waiting_, number);
    if (b.state != block_state::sent)
        return;
    --sent_;
    bytes_out_ -= b.bytes;
}

void fit_ledger::sent(int number, std::string_view entry, std::size_t bytes) {
    leave(number);
    block &b = mutable_at(number);
    b.state = block_state::sent;
    b.entry = entry;
    ++sent_;
    b.bytes = bytes;
    bytes_out_ += bytes;
    all_bytes_ += bytes;
    all_points_ += static_cast<std::size_t>(b.box.points());
}

bool fit_ledger::finished(int number, int microseconds) {
    if (at(number).state == block_state::done)
        return false;
    leave(number);
    block &b = mutable_at(number);
    b.state = block_state::done;
    points_done_ += b.box.points();
    timed_points_ += b.box.points();
    timed_microseconds_ += microseconds;
    longest_ = std::max(longest_, microseconds);
    return true;
}

void fit_ledger::failed(int number) {
    if (at(number).state != block_state::sent)
        return;
    leave(number);
    block &b = mutable_at(number);
    b.state = ++b.failures < most_failures ? block_state::waiting : block_state::given_up;
    if (b.state == block_state::waiting)
        waiting_.push_back(number);
}

void fit_ledger::all_again() {
    for (const int number : in_state(block_state::sent)) {
        leave(number);
        mutable_at(number).state = block_state::waiting;
        waiting_.push_back(number);
    }
}

std::vector<int> fit_ledger::in_state(block_state state) const {
    std::vector<int> numbers;
    for (std::size_t i = 0; i < blocks_.size(); ++i)
        if (blocks_[i].state == state)
            numbers.push_back(static_cast<int>(i));
    return numbers;
}

std::chrono::milliseconds fit_ledger::patience() const {
    const auto longest = std::chrono::ceil<std::chrono::milliseconds>(std::chrono::microseconds(longest_));
    return std::max(least_patience, 3 * longest);
}

} // namespace kestrel::stream
