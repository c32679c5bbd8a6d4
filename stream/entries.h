// stream: the broker's keys and what stands in them, as docs/stream-format.md tells it: made by the publisher, read by the
// follower.
#pragma once

#include "stream/broker.h"
#include "stream/run_seen.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrel::stream {

// A command's words, put together one by one.
class broker_words {
  public:
    broker_words &text(std::string_view word) {
        text_ += word;
        ends_.push_back(text_.size());
        return *this;
    }
    broker_words &bytes(std::span<const std::byte> bytes) {
        return text({reinterpret_cast<const char *>(bytes.data()), bytes.size()});
    }
    broker_words &field(std::string_view name, std::string_view value) { return text(name).text(value); }
    broker_words &field(std::string_view name, std::uint64_t value) {
        return field(name, std::to_string(value));
    }
    // Good until the next word.
    std::vector<std::string_view> words() const {
        std::vector<std::string_view> words;
        words.reserve(ends_.size());
        for (std::size_t begin = 0; const std::size_t end : ends_) {
            words.push_back(std::string_view(text_).substr(begin, end - begin));
            begin = end;
        }
        return words;
    }
    std::size_t count() const { return ends_.size(); }
    std::size_t size() const { return text_.size(); }

  private:
    std::string text_;
    std::vector<std::size_t> ends_;
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
