#include "stream/follow_modules.h"

#include "modules/store/store.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace kestrel::stream {

namespace {

constexpr std::uint32_t not_yet = 0, missing_frame = 2, unknown_missing = 0xFFFFFFFF, whole = 1;

struct plan {
    std::size_t x, y, t;
};

bool open_module_of(result_module &module, const std::string &name, const plan &p) {
    const auto n = [](std::size_t size) { return static_cast<int>(size); };
    if (module.find(name.c_str())) {
        if (const module_view &view = module.view(); module.look(-1) == 0 && view.data_type == MOD_U_INT32 &&
                                                     view.num_x == n(p.x) && view.num_y == n(p.y) &&
                                                     view.num_t == n(p.t))
            return true;
        module.reset();
    }
    datamod_free_name(name.c_str()); // who has the old one mapped keeps it
    if (module.make(-1, name.c_str(), {mod_element::u_int32, n(p.x), n(p.y), n(p.t), true}) != 0)
        return false;
    module.keep();
    return true;
}

std::uint32_t *word_of(result_module &module, std::size_t x, std::size_t y, std::size_t t) {
    const auto n = [](std::size_t at) { return static_cast<int>(at); };
    return reinterpret_cast<std::uint32_t *>(module.view().at(n(x), n(y), n(t)));
}

// "1,1,2": so many numbers; empty for anything else.
std::vector<std::uint32_t> numbers_of(std::string_view text, std::size_t count) {
    std::vector<std::uint32_t> numbers;
    while (numbers.size() < count) {
        std::uint32_t number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc())
            return {};
        numbers.push_back(number);
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        if (text.starts_with(','))
            text.remove_prefix(1);
    }
    return text.empty() ? numbers : std::vector<std::uint32_t>();
}

} // namespace

bool followed_card::open(const card_shape &shape, const std::string &rename) {
    shape_ = shape;
    const std::string index = std::to_string(shape.index);
    const std::size_t channels = shape.module_channels, places = shape.places;
    if (!open_module_of(status_, rename + "plr3_tf_status" + index, {channels, places, 2}) ||
        !open_module_of(scaler_status_, rename + "plr3_scalar_tf_status" + index, {channels, places, 2}) ||
        !open_module_of(scalers_, rename + "plr3_scalers" + index, {scalers_a_channel, channels, places}) ||
        !open_module_of(counts_, rename + "plr3_hist" + index,
                        {shape.energies, places * shape.auxiliaries, channels}))
        return false;
    const std::vector<std::uint32_t> none(shape.channels, not_yet);
    for (std::uint64_t frame = 0; frame < places; ++frame) {
        set_status(status_, frame, 0, none);
        set_status(status_, frame, 1, none);
        set_status(scaler_status_, frame, 0, none);
    }
    return true;
}

bool followed_card::is_here() const {
    const auto here = [](const result_module *module) {
        const module_link named(module->name().c_str());
        return named && named.head() == module->head() && datamod_is_whole(module->head());
    };
    return std::ranges::all_of(std::array{&counts_, &status_, &scalers_, &scaler_status_}, here);
}

// What is written after a word becomes "not yet" may not be seen before it, and what was before another, not after.
void followed_card::set_status(result_module &module, std::uint64_t frame, std::size_t plane,
                               std::span<const std::uint32_t> words) {
    for (std::size_t chan = 0; chan < words.size(); ++chan)
        std::atomic_ref(*word_of(module, chan, frame, plane))
            .exchange(words[chan], std::memory_order_acq_rel);
}

std::uint32_t *followed_card::counts_of(std::uint64_t frame, std::size_t channel) {
    return word_of(counts_, 0, frame * shape_.auxiliaries, channel);
}

bool followed_card::put(std::uint64_t frame, std::span<const std::byte> payload, std::string_view status,
                        std::string_view missing) {
    const auto states = numbers_of(status, shape_.channels), gone = numbers_of(missing, shape_.channels);
    if (frame >= shape_.places || payload.size() != shape_.frame_words() * sizeof(std::uint32_t) ||
        states.empty() || gone.empty())
        return false;
    const std::vector<std::uint32_t> none(shape_.channels, not_yet);
    const std::size_t bytes = payload.size() / shape_.channels;
    set_status(status_, frame, 0, none);
    for (std::size_t chan = 0; chan < shape_.channels; ++chan)
        std::memcpy(counts_of(frame, chan), payload.data() + chan * bytes, bytes);
    set_status(status_, frame, 1, gone);
    set_status(status_, frame, 0, states);
    return true;
}

void followed_card::put_lost(std::uint64_t frame) {
    if (frame >= shape_.places)
        return;
    set_status(status_, frame, 0, std::vector<std::uint32_t>(shape_.channels, not_yet));
    for (std::size_t chan = 0; chan < shape_.channels; ++chan)
        std::fill_n(counts_of(frame, chan), shape_.auxiliaries * shape_.energies, 0U);
    set_status(status_, frame, 1, std::vector<std::uint32_t>(shape_.channels, unknown_missing));
    set_status(status_, frame, 0, std::vector<std::uint32_t>(shape_.channels, missing_frame));
}

void followed_card::put_scalers(std::uint64_t frame, std::span<const std::byte> words) {
    if (frame >= shape_.places || words.size() != shape_.channels * scalers_a_channel * sizeof(std::uint32_t))
        return;
    std::memcpy(word_of(scalers_, 0, 0, frame), words.data(), words.size());
    set_status(scaler_status_, frame, 0, std::vector<std::uint32_t>(shape_.channels, whole));
}

} // namespace kestrel::stream
