#include "stream/stock.h"

#include <algorithm>

namespace kestrel::stream {

void broker_stock::add_run(const std::string &run) {
    if (std::ranges::find(runs_, run, &run_kept::run) == runs_.end())
        runs_.push_back({run, 0});
}

void broker_stock::add_headers(const std::string &run, std::size_t bytes) {
    const auto found = std::ranges::find(runs_, run, &run_kept::run);
    if (found == runs_.end())
        return;
    found->bytes += bytes;
    bytes_ += bytes;
}

void broker_stock::add_payload(const std::string &key, std::size_t bytes, clock::time_point expires) {
    payloads_.push_back({key, broker_cost(bytes), expires});
    bytes_ += payloads_.back().bytes;
}

void broker_stock::expire(clock::time_point now) {
    while (!payloads_.empty() && payloads_.front().expires <= now)
        take_oldest_payload();
}

std::optional<std::string> broker_stock::take_oldest_payload() {
    if (payloads_.empty())
        return std::nullopt;
    const payload_kept oldest = std::move(payloads_.front());
    payloads_.pop_front();
    bytes_ -= oldest.bytes;
    return oldest.key;
}

std::optional<std::string> broker_stock::take_oldest_run() {
    if (runs_.size() < 2)
        return std::nullopt;
    const run_kept oldest = std::move(runs_.front());
    runs_.pop_front();
    bytes_ -= oldest.bytes;
    return oldest.run;
}

// The newest are looked at first: those are what a failure leaves in doubt.
void broker_stock::forget_payload(const std::string &key) {
    const auto found =
        std::find_if(payloads_.rbegin(), payloads_.rend(), [&](const auto &p) { return p.key == key; });
    if (found == payloads_.rend())
        return;
    bytes_ -= found->bytes;
    payloads_.erase(std::next(found).base());
}

void broker_stock::clear() {
    payloads_.clear();
    runs_.clear();
    bytes_ = 0;
}

} // namespace kestrel::stream
