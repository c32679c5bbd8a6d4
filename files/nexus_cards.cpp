#include "files/nexus_cards.h"

#include <atomic>
#include <cstring>
#include <hdf5.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace kestrel {

namespace {

constexpr std::uint32_t not_yet = 0;

std::size_t number_of(std::string_view text) {
    std::size_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

} // namespace

bool nexus_module::map(int descriptor, std::string &cause) {
    struct stat status {};
    if (::fstat(descriptor, &status) == 0)
        memory =
            unique_mapping::map(descriptor, static_cast<std::size_t>(status.st_size), PROT_READ, MAP_SHARED);
    if (memory && kestrel_module_look(memory.address(), memory.size(), &layout) == KESTREL_MODULE_OK &&
        layout.element_size == sizeof(std::uint32_t) && layout.data_offset % sizeof(std::uint32_t) == 0)
        return true;
    cause = "a module is not what a card counts into";
    return false;
}

const std::uint32_t *nexus_module::word(std::size_t x, std::size_t y, std::size_t t) const {
    const auto *first = static_cast<const std::byte *>(memory.address()) + layout.data_offset;
    return reinterpret_cast<const std::uint32_t *>(first) + (t * layout.num_y + y) * layout.num_x + x;
}

bool nexus_card::open(nexus_file &file, const nexus_record &record, std::string &cause) {
    const std::string group(record.words[1]);
    if (!counts_.map(static_cast<int>(number_of(record.words[2])), cause) ||
        !status_.map(static_cast<int>(number_of(record.words[3])), cause))
        return false;
    channels_ = number_of(record.words[4]);
    const std::size_t auxiliaries = number_of(record.words[5]);
    frames_ = auxiliaries == 0 ? 0 : counts_.layout.num_y / auxiliaries;
    words_ = auxiliaries * counts_.layout.num_x;
    if (words_ == 0 || channels_ == 0 || channels_ > counts_.layout.num_t ||
        channels_ > status_.layout.num_x || frames_ > status_.layout.num_y || status_.layout.num_t < 2) {
        cause = "the modules of " + group + " do not fit its channels";
        return false;
    }
    if (file.make_growing(group + "/counts", H5T_NATIVE_UINT32, channels_ * auxiliaries, counts_.layout.num_x,
                          "counts", counts_set_) &&
        file.make_growing(group + "/status", H5T_NATIVE_UINT8, channels_, 0, "", status_set_) &&
        file.make_growing(group + "/packets_missing", H5T_NATIVE_UINT32, channels_, 0, "", missing_set_) &&
        file.make_growing(group + "/frame", H5T_NATIVE_UINT32, 0, 0, "", frame_set_))
        return true;
    cause = file.cause();
    return false;
}

std::uint32_t nexus_card::status_of(std::size_t frame, std::size_t channel, std::size_t plane) const {
    auto *word = const_cast<std::uint32_t *>(status_.word(channel, frame, plane)); // the load writes nothing
    return std::atomic_ref(*word).load(std::memory_order_acquire);
}

bool nexus_card::is_final(std::size_t frame) const {
    for (std::size_t channel = 0; channel < channels_; ++channel)
        if (status_of(frame, channel) == not_yet)
            return false;
    return true;
}

// A word becomes "not yet" before the first byte of a new frame lands in its place: a copy is good when it was the same
// before and after.
bool nexus_card::copy(nexus_file &file, std::size_t frame, bool as_it_is) {
    std::vector<std::uint32_t> counts(channels_ * words_), missing(channels_);
    std::vector<std::uint8_t> status(channels_);
    const std::size_t auxiliaries = counts_.layout.num_y / frames_;
    for (std::size_t channel = 0; channel < channels_; ++channel) {
        const std::uint32_t before = status_of(frame, channel);
        const auto to = std::span(counts).subspan(channel * words_, words_);
        if (before != not_yet || as_it_is)
            std::memcpy(to.data(), counts_.word(0, frame * auxiliaries, channel), to.size_bytes());
        missing[channel] = status_of(frame, channel, 1);
        // The copy is read before the word is looked at again: this holds the compiler; the processors that this runs
        // on load in order.
        std::atomic_signal_fence(std::memory_order_acquire);
        const bool good = status_of(frame, channel) == before;
        if (!good)
            std::ranges::fill(to, 0U);
        status[channel] = static_cast<std::uint8_t>(good ? before : not_yet);
    }
    const auto number = static_cast<std::uint32_t>(frame);
    return file.append(counts_set_, frame, counts.data()) && file.append(status_set_, frame, status.data()) &&
           file.append(missing_set_, frame, missing.data()) && file.append(frame_set_, frame, &number);
}

} // namespace kestrel
