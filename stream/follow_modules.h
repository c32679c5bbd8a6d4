// stream: the modules that a follower makes of a run, as the readout library makes them: histograms, status, scalers and
// their status. Who maps them copies a frame and trusts it when its status was the same before and after.
#pragma once

#include "modules/store/result_module.h"
#include "stream/run_seen.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel::stream {

class followed_card {
  public:
    // Makes them, or finds those that fit, all status 0. False after a line on standard output. Names begin with
    // `rename`.
    bool open(const card_shape &shape, const std::string &rename);

    // Whether the modules of those names are still the ones that were opened, and whole.
    bool is_here() const;

    const card_shape &shape() const { return shape_; }
    // A whole frame as the broker has it, with status and missing packets of its channels ("1,1,2"). False when they do not
    // fit the card.
    bool put(std::uint64_t frame, std::span<const std::byte> payload, std::string_view status,
             std::string_view missing);
    // A frame whose counts are lost: its place is zeroed, and marked like one that never came.
    void put_lost(std::uint64_t frame);
    // Its channels' scalers.
    void put_scalers(std::uint64_t frame, std::span<const std::byte> words);

  private:
    void set_status(result_module &module, std::uint64_t frame, std::size_t plane,
                    std::span<const std::uint32_t> words);
    std::uint32_t *counts_of(std::uint64_t frame, std::size_t channel);

    card_shape shape_;
    result_module counts_, status_, scalers_, scaler_status_;
};

} // namespace kestrel::stream
