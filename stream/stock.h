// stream: what of ours the broker keeps, by the publisher's own account: each payload and each run, in the order in which
// they go when there is no more room. No input or output here.
#pragma once

#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace kestrel::stream {

// What a string of so many bytes costs the broker: its allocator has four sizes a power of two, and the key, its entry and
// its time of expiry come with it.
constexpr std::size_t broker_cost(std::size_t bytes) {
    constexpr std::size_t header = 16, around = 192;
    const std::size_t size = bytes + header;
    const std::size_t step = size <= 64 ? 16 : std::bit_floor(size - 1) / 4;
    return (size + step - 1) / step * step + around;
}

class broker_stock {
  public:
    using clock = std::chrono::steady_clock; // the broker counts the seconds itself
    struct run_kept {
        std::string run;
        std::size_t bytes = 0; // of its headers and scalers
    };

    void add_run(const std::string &run); // once
    // Headers or scalers of a run that is there.
    void add_headers(const std::string &run, std::size_t bytes);
    void add_payload(const std::string &key, std::size_t bytes, clock::time_point expires);
    // Payloads that have expired by themselves.
    void expire(clock::time_point now);

    // The key of the oldest payload, which is taken off; nothing when there is none.
    std::optional<std::string> take_oldest_payload();
    // The oldest run, unless it is the only one.
    std::optional<std::string> take_oldest_run();
    void forget_payload(const std::string &key);
    void clear();

    std::size_t bytes() const { return bytes_; }
    std::size_t payloads() const { return payloads_.size(); }
    const std::deque<run_kept> &runs() const { return runs_; }

  private:
    struct payload_kept {
        std::string key;
        std::size_t bytes = 0;
        clock::time_point expires;
    };
    std::deque<payload_kept> payloads_;
    std::deque<run_kept> runs_;
    std::size_t bytes_ = 0;
};

} // namespace kestrel::stream
