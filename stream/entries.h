// stream: the broker's keys and what stands in them, as docs/stream-format.md tells it: made by the publisher, read by the
// follower.
#pragma once

#include "stream/broker.h"
#include "stream/run_seen.h"

#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrel::stream {

// A command's words: texts that are made for it, and bytes that stay where they are until it has been appended.
class broker_words {
  public:
    broker_words() = default;
    broker_words(broker_words &&) = default; // the texts of a deque stay where they are
    broker_words &operator=(broker_words &&) = default;
    broker_words &text(std::string word) {
        views_.push_back(owned_.emplace_back(std::move(word)));
        bytes_ += views_.back().size();
        return *this;
    }
    broker_words &bytes(std::span<const std::byte> bytes) {
        views_.emplace_back(reinterpret_cast<const char *>(bytes.data()), bytes.size());
        bytes_ += bytes.size();
        return *this;
    }
    broker_words &field(const char *name, std::string value) { return text(name).text(std::move(value)); }
    broker_words &field(const char *name, std::uint64_t value) { return field(name, std::to_string(value)); }
    std::span<const std::string_view> words() const { return views_; }
    std::size_t size() const { return bytes_; }

  private:
    std::deque<std::string> owned_; // whose texts do not move
    std::vector<std::string_view> views_;
    std::size_t bytes_ = 0;
};

// Keys of a run, without the site's prefix.
std::string meta_key(const std::string &run);
std::string frames_key(const std::string &run, int card);
std::string scalers_key(const std::string &run);
std::string payload_key(const std::string &run, int card, std::uint64_t frame);

// "20261122T070644.123456Z" of microseconds since the epoch: a run's name.
std::string run_id_of(std::int64_t begun_us);

// A frame's place in its stream, "<frame + 1>-0", and back.
std::string entry_id(std::uint64_t frame);
std::optional<std::uint64_t> frame_of_entry(std::string_view id);

// A card's shape as text, "channels,auxiliaries,energies,places,channels of the modules,first channel", and back; nothing
// for what no card has.
std::string shape_text(const card_shape &card);
std::optional<card_shape> shape_of_text(int index, std::string_view text);

// The run's settings as JSON: the clock's period and each channel's dead time.
std::string settings_json(const std::vector<card_seen> &cards);

std::int64_t now_us(); // since the epoch

} // namespace kestrel::stream
