#include "stream/run_seen.h"

#include "modules/store/run_sheet.h"
#include "support/dead_time.h"
#include "support/rate_solver.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstring>
#include <dirent.h>
#include <limits>
#include <sys/stat.h>

namespace kestrel::stream {

namespace {

constexpr double most = 1e9; // of any count in a sheet

std::optional<std::size_t> count_of(double value) {
    const bool good = value >= 0 && value <= most && value == std::floor(value);
    return good ? std::optional(static_cast<std::size_t>(value)) : std::nullopt;
}

std::string joined(const std::vector<std::uint32_t> &words) {
    std::string text;
    for (const std::uint32_t word : words)
        text += (text.empty() ? "" : ",") + std::to_string(word);
    return text;
}

bool is_words(const open_module &m, std::size_t x, std::size_t y, std::size_t t) {
    return m && m.shape.element_size == sizeof(std::uint32_t) && m.shape.num_x >= x && m.shape.num_y >= y &&
           m.shape.num_t >= t;
}

} // namespace

double dead_time_factor(const std::uint32_t (&s)[scalers_a_channel], const channel_dead_time &dead,
                        double clock_period) {
    if (dead.omitted)
        return 0;
    const double time = s[0], live = time - s[1];
    const dtc_terms terms =
        dtc_make_terms(dead.all_event, dead.all_event_rate, dead.in_window, dead.in_window_rate);
    const double seen = s[dead.use_good_events ? 4 : 3] / (live * clock_period);
    const double rate = dtc_rate_by_bisection(terms, seen);
    const double factor = time / live * dead_time_loss(rate, terms.c, terms.d);
    return std::isfinite(factor) && factor != std::numeric_limits<double>::max() ? factor : 1.0;
}

std::optional<card_seen> card_seen::open(int index) {
    card_seen card;
    const std::string number = std::to_string(index);
    card.sheet_ = open_for_reading(run_sheet_prefix + number);
    const kestrel_module &s = card.sheet_.shape;
    if (!card.sheet_ || s.element_size != sizeof(double) || s.num_x != run_sheet_words || s.num_y > 1024)
        return std::nullopt;
    std::vector<double> rows(s.num_x * s.num_y);
    if (!card.sheet_.read(rows.data(), rows.size() * sizeof(double), 0, 0, 0))
        return std::nullopt;
    card.shape.index = index;
    card.shape.module_channels = s.num_y - 1;
    card.counts_ = open_for_reading("plr3_hist" + number);
    card.status_ = open_for_reading("plr3_tf_status" + number);
    card.scalers_ = open_for_reading("plr3_scalers" + number);
    card.scaler_status_ = open_for_reading("plr3_scalar_tf_status" + number);
    // The modules were opened at the run whose sheet was read.
    if (!card.take_sheet(rows) || !card.fits() || !card.is_same_run())
        return std::nullopt;
    return card;
}

bool card_seen::take_sheet(const std::vector<double> &rows) {
    const auto channels = count_of(rows[run_sheet_channels]), energies = count_of(rows[run_sheet_energies]),
               auxiliaries = count_of(rows[run_sheet_auxiliaries]), places = count_of(rows[run_sheet_places]),
               first = count_of(rows[run_sheet_first_channel]), cards = count_of(rows[run_sheet_cards]);
    begun = rows[run_sheet_begun];
    clock_period = rows[run_sheet_clock];
    if (!(begun > 0 && begun < most * 10) || !channels || !energies || !auxiliaries || !places || !first ||
        !cards || rows[run_sheet_circular] != 0)
        return false;
    shape.channels = *channels;
    shape.energies = *energies;
    shape.auxiliaries = *auxiliaries;
    shape.places = *places;
    shape.first_channel = *first;
    cards_of_run = *cards;
    for (std::size_t chan = 0; chan < std::min(*channels, shape.module_channels); ++chan) {
        const double *row = &rows[(1 + chan) * run_sheet_words];
        dead_times.push_back({row[run_sheet_all_event], row[run_sheet_all_event_rate],
                              row[run_sheet_in_window], row[run_sheet_in_window_rate],
                              row[run_sheet_omitted] != 0, row[run_sheet_use_good_events] != 0});
    }
    return true;
}

bool card_seen::fits() const {
    const card_shape &s = shape;
    return s.channels > 0 && s.channels <= s.module_channels && s.energies > 0 && s.auxiliaries > 0 &&
           s.auxiliaries <= frame_words_most / s.energies && s.frame_words() <= frame_words_most &&
           is_words(counts_, s.energies, s.places * s.auxiliaries, s.module_channels) &&
           counts_.shape.num_x == s.energies && is_words(status_, s.module_channels, s.places, 2) &&
           cards_of_run > 0;
}

bool card_seen::is_same_run() const {
    double now = 0;
    return sheet_.read(&now, sizeof now, run_sheet_begun, 0, 0) && now == begun;
}

bool card_seen::is_removed() const {
    struct stat status {};
    return ::fstat(sheet_.fd.get(), &status) != 0 || status.st_nlink == 0;
}

std::optional<std::uint64_t> card_seen::frames() const {
    double words[run_sheet_frames + 1] = {};
    if (!sheet_.read(words, sizeof words, 0, 0, 0) || words[run_sheet_state] != run_over)
        return std::nullopt;
    return std::min<std::uint64_t>(count_of(words[run_sheet_frames]).value_or(0), shape.places);
}

bool card_seen::read_status(const open_module &module, std::uint64_t frame, std::size_t plane,
                            std::vector<std::uint32_t> &words) const {
    words.resize(shape.channels);
    return module.read(words.data(), words.size() * sizeof words[0], 0, frame, plane);
}

// `words`: the frame's status in each channel.
bool card_seen::all_set(const open_module &module, std::uint64_t frame,
                        std::vector<std::uint32_t> &words) const {
    return frame < shape.places && read_status(module, frame, 0, words) &&
           std::ranges::find(words, 0U) == words.end();
}

bool card_seen::has_scalers(std::uint64_t frame) const {
    const std::size_t channels = shape.module_channels;
    std::vector<std::uint32_t> words;
    return is_words(scalers_, scalers_a_channel, channels, shape.places) &&
           is_words(scaler_status_, channels, shape.places, 1) && all_set(scaler_status_, frame, words);
}

std::shared_ptr<frame_contents> card_seen::copy(std::uint64_t frame) const {
    std::vector<std::uint32_t> before, missing, after;
    if (!all_set(status_, frame, before) || !read_status(status_, frame, 1, missing))
        return nullptr;
    auto contents = std::make_shared<frame_contents>();
    const std::size_t bytes = shape.auxiliaries * shape.energies * sizeof(std::uint32_t);
    contents->payload.resize(shape.channels * bytes);
    for (std::size_t chan = 0; chan < shape.channels; ++chan)
        if (!counts_.read(&contents->payload[chan * bytes], bytes, 0, frame * shape.auxiliaries, chan))
            return nullptr;
    if (!read_status(status_, frame, 0, after) || before != after || !is_same_run())
        return nullptr;
    contents->status = joined(before);
    contents->missing = joined(missing);
    return contents;
}

bool card_seen::copy_scalers(std::uint64_t frame, std::vector<std::uint32_t> &scalers,
                             std::vector<double> &factors) const {
    for (std::size_t chan = 0; chan < shape.channels; ++chan) {
        std::uint32_t words[scalers_a_channel] = {};
        if (!scalers_.read(words, sizeof words, 0, chan, frame))
            return false;
        scalers.insert(scalers.end(), std::begin(words), std::end(words));
        factors.push_back(dead_time_factor(words, dead_times[chan], clock_period));
    }
    return is_same_run();
}

std::vector<int> cards_here() {
    std::vector<int> found;
    const std::unique_ptr<DIR, int (*)(DIR *)> objects(::opendir(mod_folder), ::closedir);
    while (const dirent *entry = objects ? ::readdir(objects.get()) : nullptr) {
        std::string_view name = entry->d_name;
        if (!name.starts_with(run_sheet_prefix))
            continue;
        name.remove_prefix(std::strlen(run_sheet_prefix));
        int index = -1;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), index);
        if (error == std::errc() && end == name.data() + name.size() && index >= 0)
            found.push_back(index);
    }
    std::ranges::sort(found);
    return found;
}

} // namespace kestrel::stream
