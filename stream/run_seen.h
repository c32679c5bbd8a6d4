// stream: a run as its modules on this machine show it. Reads only; a module that goes or changes meanwhile is a run that
// was cut short, never a fault.
#pragma once

#include "modules/store/read_module.h"
#include "stream/frame_ring.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::stream {

struct card_shape {
    int index = 0;            // in the installation: the number in its modules' names
    std::size_t channels = 0; // in use, and that the modules have
    std::size_t module_channels = 0;
    std::size_t auxiliaries = 0, energies = 0, places = 0; // of a channel
    std::size_t first_channel = 0;                         // as the path numbers them

    std::size_t frame_words() const { return channels * auxiliaries * energies; }
    bool operator==(const card_shape &) const = default;
};

inline constexpr std::size_t scalers_a_channel = 9;
inline constexpr std::size_t frame_words_most = std::size_t{1}
                                                << 27; // 512 MiB: the longest string of a broker

// A channel's dead time when its run began: seconds, the rate terms in seconds squared.
struct channel_dead_time {
    double all_event = 0, all_event_rate = 0, in_window = 0, in_window_rate = 0;
    bool omitted = false, use_good_events = false;
};
// The factor that a channel's counts of a frame are to be multiplied by, as the server gives it.
double dead_time_factor(const std::uint32_t (&scalers)[scalers_a_channel], const channel_dead_time &dead,
                        double clock_period);

class card_seen {
  public:
    // The card whose sheet that is, at a run that has begun and fits its modules; nothing else is one.
    static std::optional<card_seen> open(int index);

    card_shape shape;
    double begun = 0; // seconds since the epoch
    std::size_t cards_of_run = 0;
    double clock_period = 0;
    std::vector<channel_dead_time> dead_times;

    bool is_same_run() const;
    // Whether its sheet has been removed; what was open stays as it was, and nobody writes there any more.
    bool is_removed() const;
    // The frames of the run, those without a place not counted; nothing while it goes on.
    std::optional<std::uint64_t> frames() const;
    // Whether the frame's scalers are whole, or known to be lost, in all channels.
    bool has_scalers(std::uint64_t frame) const;
    // A frame that is whole, or known to be lost, in all channels: their words one after the other. Null while it is not,
    // or where it is not there any more.
    std::shared_ptr<frame_contents> copy(std::uint64_t frame) const;
    // Appends the frame's scalers and factors of the channels in use.
    bool copy_scalers(std::uint64_t frame, std::vector<std::uint32_t> &scalers,
                      std::vector<double> &factors) const;

  private:
    bool read_status(const open_module &module, std::uint64_t frame, std::size_t plane,
                     std::vector<std::uint32_t> &words) const;
    bool all_set(const open_module &module, std::uint64_t frame, std::vector<std::uint32_t> &words) const;
    bool take_sheet(const std::vector<double> &rows);
    bool fits() const;

    open_module sheet_, counts_, status_, scalers_, scaler_status_;
};

// The cards of this machine that have begun a run, by index; sheets that are not whole are no cards.
std::vector<int> cards_here();

} // namespace kestrel::stream
