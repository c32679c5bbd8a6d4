// files, kestrel-nexus: the modules of cards, mapped for reading, and their frames as they go into the file.
#pragma once

#include "files/nexus_file.h"
#include "modules/store/kestrel_module.h"
#include "support/mapping.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel {

// A module of 32-bit words.
struct nexus_module {
    unique_mapping memory;
    kestrel_module layout{};

    bool map(int descriptor, std::string &cause);
    const std::uint32_t *word(std::size_t x, std::size_t y, std::size_t t) const;
};

class nexus_card {
  public:
    // Maps the modules and makes the card's datasets in `group`: counts, status, packets_missing, frame. False with a
    // cause.
    bool open(nexus_file &file, const nexus_record &record, std::string &cause);
    std::size_t frames() const { return frames_; } // that there is room for
    // Every channel's frame is whole, or is known to be lost.
    bool is_final(std::size_t frame) const;
    // `as_it_is`: also what has not come, since nothing comes any more.
    bool copy(nexus_file &file, std::size_t frame, bool as_it_is);

  private:
    std::uint32_t status_of(std::size_t frame, std::size_t channel, std::size_t plane = 0) const;

    std::size_t frames_ = 0, channels_ = 0, words_ = 0; // words of a channel's frame
    nexus_module counts_, status_;
    nexus_growing counts_set_, status_set_, missing_set_, frame_set_;
};

} // namespace kestrel
