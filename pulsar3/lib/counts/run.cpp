#include "pulsar3/lib/counts/run.h"

#include "pulsar3/lib/counts/progress.h"
#include "pulsar3/lib/counts/run_sheet.h"
#include "pulsar3/lib/counts/shape.h"
#include "pulsar3/lib/paths/access.h"
#include "pulsar3/lib/registers/bits.h"
#include "pulsar3/lib/registers/register_table.h"

#include <algorithm>
#include <array>
#include <string>
#include <thread>

namespace kestrel {

namespace {

constexpr int timing_a = 2, fixed_time = 3, internal_frames = 8, status_a = 32, time_status_a = 34;
constexpr std::uint32_t source_bits = 7;
constexpr std::uint32_t hist_run = 1U << 28, counting_enabled = 1U << 29, scaler_run = 1U << 31;
constexpr std::uint32_t run_bits = hist_run | counting_enabled | scaler_run;
constexpr std::uint32_t stop_mask = 0x4FFFFFFF;
constexpr std::uint32_t is_running = 1, is_counting = 2; // in status A

// The cards that a call means, by number: first and one past the last, or a status with its text.
int card_range(const char *function, int path, int card, int &first, int &end) {
    const PLR3Path *top = plr3_path(path);
    if (!top)
        return plr3_fail(plr3_invalid_path, "%s: invalid path %d", function, path);
    if (card < -1 || card >= top->num_cards)
        return plr3_fail(plr3_illegal_card, "%s: illegal card specified (%d)", function, card);
    first = card < 0 ? 0 : card;
    end = card < 0 ? top->num_cards : card + 1;
    for (int one = first; one < end; ++one)
        if (!plr3_path(plr3_leaf(*top, path, one)))
            return plr3_fail(plr3_illegal_sub_path, "%s: resolved illegal sub path (path=%d)", function,
                             plr3_leaf(*top, path, one));
    return 0;
}

PLR3Path &leaf_of(int path, int card) {
    return *plr3_path(plr3_leaf(*plr3_path(path), path, card));
}

int read_word(int path, int card, int offset, std::uint32_t &word) {
    return plr3_read_card_reg(path, card, offset, {&word, 1});
}

int write_word(int path, int card, int offset, std::uint32_t word) {
    return plr3_write_card_reg(path, card, offset, {&word, 1});
}

int rmw_word(int path, int card, int offset, std::uint32_t mask, std::uint32_t value) {
    std::uint32_t result = 0;
    return plr3_path(path)->features.generation == PulsarGen4
               ? plr4_rmw_glob_reg(path, card, offset, mask, value, result)
               : plr3_rmw_glob_reg(path, card, offset, mask, value, result);
}

template <class F> void for_channels(PLR3Path &card, F f) {
    for (int chan = 0; chan < card.chans_per_card; ++chan)
        f(*card.histogram[static_cast<std::size_t>(chan)]);
}

// ---- the end

// The card has ended its run after so many time frames.
int note_end(int path, int card) {
    PLR3Path &leaf = leaf_of(path, card);
    std::uint32_t frames = 0;
    if (const int status = read_word(path, card, time_status_a, frames); status != 0)
        return status;
    leaf.run_started = false;
    const bool never_ran = leaf.frames_before == frames;
    const std::uint64_t sent = (leaf.run_flags & plr3_run_hist) != 0 && !never_ran ? frames : 0;
    for_channels(leaf, [sent](Histogram &h) { plr3_histogram_end_run(h, sent); });
    plr3_sheet_end(leaf, sent);
    return 0;
}

int note_ended_card(int path, int card) {
    std::uint32_t timing = 0, status = 0, ended = 0, frames = 0;
    for (const auto &[offset, word] : {std::pair{timing_a, &timing}, std::pair{status_a, &status},
                                       std::pair{time_status_a, &ended}, std::pair{internal_frames, &frames}})
        if (const int read = read_word(path, card, offset, *word); read != 0)
            return read;
    const bool finished = (timing & source_bits) == plr3_timing_internal && frames != 0 && ended >= frames;
    return (status & is_running) != 0 && !finished ? 0 : note_end(path, card);
}

bool settled(int path, int first, int end) {
    bool all = true;
    for (int card = first; card < end; ++card)
        for_channels(leaf_of(path, card), [&all](Histogram &h) { all = plr3_histogram_settled(h) && all; });
    return all;
}

// ---- start

// A run that is on, or was left on, ends. The last frames arrive, or are given up, before another run may start: they
// bear no number of their run, one that came late would pass for data of the new one.
int end_runs(int path, int first, int end) {
    for (int card = first; card < end; ++card) {
        if (const int status = rmw_word(path, card, timing_a, stop_mask, 0); status != 0)
            return status;
        if (!leaf_of(path, card).run_started)
            continue;
        if (const int status = note_end(path, card); status != 0)
            return status;
    }
    const auto last = plr3_clock::now() + plr3_tail;
    while (!settled(path, first, end) && plr3_clock::now() < last)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return 0;
}

// Threads that a socket's error has ended begin anew.
int restart_threads(PLR3Path &card) {
    int status = 0;
    for_channels(card, [&status](Histogram &h) {
        if (h.error_flags == 0)
            return;
        plr3_histogram_thread_stop(h);
        if (const int started = plr3_histogram_thread_start(h); started != 0)
            status = started;
    });
    return status;
}

int prepare_card(int path, int card) {
    PLR3Path &leaf = leaf_of(path, card);
    if (const int status = restart_threads(leaf); status != 0)
        return status;
    if (leaf.femHandle)
        if (const int status = pulsar3FemResetFrameCounter(*leaf.femHandle, 1); status != 0)
            return status;
    if (leaf.readout && leaf.readout->failed)
        if (const int status = plr3_readout_start(*leaf.readout); status != 0)
            return status;
    if (leaf.readout)
        plr3_readout_quiet(*leaf.readout);
    for_channels(leaf, [&leaf](Histogram &h) {
        if (plr3_has_histograms(leaf))
            plr3_histogram_begin_run(h);
    });
    return 0;
}

int start_card(int path, int card, bool enable) {
    PLR3Path &leaf = leaf_of(path, card);
    std::uint32_t word = 0;
    if (const int status = read_word(path, card, timing_a, word); status != 0)
        return status;
    word &= ~run_bits;
    word |= (leaf.run_flags & plr3_run_hist) != 0 ? hist_run : 0;
    word |= (leaf.run_flags & plr3_run_scalers) != 0 ? scaler_run : 0;
    word |= enable ? counting_enabled : 0;
    leaf.run_started = true;
    return write_word(path, card, timing_a, word);
}

// Where cards are started that wait for card 0, which the count of frames of the run before outlives until then.
int note_frames_before(int path, int first, int end) {
    if (first == 0) { // what waited for it begins
        for (int card = 0; card < plr3_path(path)->num_cards; ++card)
            leaf_of(path, card).frames_before.reset();
        return 0;
    }
    std::uint32_t master = 0, frames = 0;
    if (const int status = read_word(path, 0, timing_a, master); status != 0)
        return status;
    for (int card = first; card < end; ++card) {
        if (const int status = read_word(path, card, time_status_a, frames); status != 0)
            return status;
        const bool waits = (master & (hist_run | scaler_run)) == 0;
        leaf_of(path, card).frames_before = waits ? std::optional(frames) : std::nullopt;
    }
    return 0;
}

int start_system(const char *function, int path, int card, bool enable) {
    int first = 0, end = 0;
    if (const int status = card_range(function, path, card, first, end); status != 0)
        return status;
    if (const int status = end_runs(path, first, end); status != 0)
        return status;
    plr3_sheets_clear(path, first, end);
    if (const int status = plr3_follow_formats(path, first, end); status != 0)
        return status;
    for (int one = first; one < end; ++one)
        if (const int status = prepare_card(path, one); status != 0)
            return status;
    if (const int status = note_frames_before(path, first, end); status != 0)
        return status;
    plr3_begin_progress(path, first, end);
    plr3_sheets_begin(path, first, end);
    for (int one = end - 1; one >= first; --one)
        if (const int status = start_card(path, one, enable); status != 0)
            return status;
    return 0;
}

int set_host_ports(int path, int first, int end) {
    for (int card = first; card < end; ++card) {
        PLR3Path &leaf = leaf_of(path, card);
        if (!leaf.femHandle || !leaf.udpsock.socket)
            continue;
        if (leaf.debug)
            plr3_message(leaf.message_to, "setting udp hostport in FEM to %d\n", leaf.udpsock.hostPort);
        if (const int status = pulsar3FemSetHostPort(*leaf.femHandle, leaf.udpsock.hostPort); status != 0)
            return status;
    }
    return 0;
}

// ---- pause and continue

struct enable_change {
    const char *function;
    std::uint32_t mask, value;
};

constexpr enable_change pausing = {"plr3_histogram_pause", 0xDFFFFFFF, 0};
constexpr enable_change continuing = {"plr3_histogram_continue", 0xFFFFFFFF, counting_enabled};

int refuse(const enable_change &change, int card, std::uint32_t word) {
    if (change.value == 0)
        return plr3_fail(
            plr3_failed,
            "plr3_histogram_pause: System should be armed and ready in software timing mode, but "
            "Timea=%08X",
            word);
    return plr3_fail(plr3_failed,
                     "plr3_histogram_continue: System should be armed and ready on all cards and in software "
                     "timing mode or IKAIRO on card 0, but card %d Timea=%08X",
                     card, word);
}

// The internal generator of card 0 may be continued: it gates the others.
bool may_change(const enable_change &change, int card, std::uint32_t word) {
    const std::uint32_t source = word & source_bits;
    return source <= plr3_timing_pauses || (change.value != 0 && card == 0 && source == plr3_timing_internal);
}

int change_enable(const enable_change &change, int path, int card, bool force) {
    int first = 0, end = 0;
    if (const int status = card_range(change.function, path, card, first, end); status != 0)
        return status;
    std::array<std::uint32_t, plr3_max_cards> words{};
    for (int one = first; one < end; ++one) {
        std::uint32_t &word = words[static_cast<std::size_t>(one)];
        if (const int status = read_word(path, one, timing_a, word); status != 0)
            return plr3_fail(status, "%s: Error reading Global Timing reg A %s", change.function,
                             plr3_get_error_message());
        if (!force && !may_change(change, one, word))
            return refuse(change, one, word);
    }
    for (int step = 0; step < end - first; ++step) { // card 0 gates the others: last to go on, first to pause
        const int one = change.value != 0 ? end - 1 - step : first + step;
        const std::uint32_t word = (words[static_cast<std::size_t>(one)] & change.mask) | change.value;
        if (const int status = write_word(path, one, timing_a, word); status != 0)
            return plr3_fail(status, "%s: Error writing Global Timing reg A %s", change.function,
                             plr3_get_error_message());
    }
    return 0;
}

// step(card) for every card of the path, whatever becomes of the others: the first failure, its text kept.
template <class F> int for_every_card(int path, F step) {
    int failure = 0;
    std::string text;
    for (int card = 0; card < plr3_path(path)->num_cards; ++card) {
        const int status = step(card);
        if (status == 0 || failure != 0)
            continue;
        failure = status;
        text = plr3_get_error_message();
    }
    return failure == 0 ? 0 : plr3_fail(failure, "%s", text.c_str());
}

} // namespace

int plr3_system_start(int path, int card) {
    return start_system("plr3_system_start", path, card, true);
}

int plr3_system_arm(int path, int card) {
    return start_system("plr3_system_arm", path, card, false);
}

int plr3_histogram_start_count_enb(int path, int card, int enable) {
    int first = 0, end = 0;
    if (const int status = card_range("plr3_histogram_start", path, card, first, end); status != 0)
        return status;
    int status = set_host_ports(path, first, end);
    if (status == 0)
        status = enable ? plr3_system_start(path, card) : plr3_system_arm(path, card);
    return status == 0 ? 0 : plr3_fail(status, "plr3_histogram_start: %s", plr3_get_error_message());
}

int plr3_histogram_start(int path, int card) {
    return plr3_histogram_start_count_enb(path, card, 1);
}

int plr3_histogram_arm(int path, int card) {
    return plr3_histogram_start_count_enb(path, card, 0);
}

int plr3_histogram_pause(int path, int card, bool force) {
    return change_enable(pausing, path, card, force);
}

int plr3_histogram_continue(int path, int card, bool force) {
    return change_enable(continuing, path, card, force);
}

int plr3_histogram_stop(int path, int card) {
    int first = 0, end = 0;
    if (const int status = card_range("plr3_histogram_stop", path, card, first, end); status != 0)
        return status;
    if (const int status = rmw_word(path, 0, timing_a, stop_mask, 0); status != 0)
        return plr3_fail(status, "plr3_histogram_stop: %s", plr3_get_error_message());
    if (const int status = for_every_card(path, [path](int one) { return note_end(path, one); }); status != 0)
        return plr3_fail(status, "plr3_histogram_stop: %s", plr3_get_error_message());
    plr3_end_progress(path);
    return 0;
}

bool plr3_run_is_on(int path) {
    const PLR3Path &top = *plr3_path(path);
    for (int card = 0; card < top.num_cards; ++card)
        if (leaf_of(path, card).run_started)
            return true;
    return false;
}

int plr3_note_ended_runs(int path) {
    if (!plr3_path(path))
        return plr3_fail(plr3_invalid_path, "plr3_note_ended_runs: invalid path %d", path);
    const int status = for_every_card(
        path, [path](int card) { return leaf_of(path, card).run_started ? note_ended_card(path, card) : 0; });
    if (!plr3_run_is_on(path))
        plr3_end_progress(path);
    return status;
}

bool plr3_run_settled(int path) {
    return settled(path, 0, plr3_path(path)->num_cards);
}

int plr3_histogram_is_busy(int path, int card) {
    int first = 0, end = 0;
    if (const int status = card_range("plr3_histogram_is_busy", path, card, first, end); status != 0)
        return status;
    int busy = 0;
    for (int one = first; one < end; ++one)
        for_channels(leaf_of(path, one), [&busy](const Histogram &h) { busy |= h.busy.load(); });
    return busy;
}

int plr3_histogram_is_any_busy(int path) {
    return plr3_histogram_is_busy(path, -1);
}

int plr3_set_timing(int path, int card, const timing_request &request) {
    int first = 0, end = 0;
    if (const int status = card_range("plr3_set_timing", path, card, first, end); status != 0)
        return status;
    const register_field &source = plr3_register_field("timing-a", "source");
    if (request.source > source.highest)
        return plr3_fail(plr3_out_of_range, "plr3_set_timing: source %d is out of range 0..%d",
                         request.source, source.highest);
    for (const std::int64_t value : {request.fixed_ticks, request.frames})
        if (value > 0xFFFFFFFFLL)
            return plr3_fail(plr3_out_of_range, "plr3_set_timing: %lld is out of range 0..4294967295",
                             static_cast<long long>(value));
    for (int one = first; one < end; ++one) {
        int status = 0;
        if (request.fixed_ticks >= 0)
            status = write_word(path, one, fixed_time, static_cast<std::uint32_t>(request.fixed_ticks));
        if (status == 0 && request.frames >= 0)
            status = write_word(path, one, internal_frames, static_cast<std::uint32_t>(request.frames));
        if (status == 0 && request.source >= 0)
            status = rmw_word(path, one, timing_a, ~source_bits, static_cast<std::uint32_t>(request.source));
        if (status != 0)
            return plr3_fail(status, "plr3_set_timing: %s", plr3_get_error_message());
    }
    return 0;
}

int plr3_get_progress(int path, int card, run_progress &progress) {
    int first = 0, end = 0;
    if (const int status = card_range("plr3_get_progress", path, card, first, end); status != 0)
        return status;
    PLR3Path &leaf = leaf_of(path, card);
    std::uint32_t timing = 0, status_word = 0, ended = 0, frames = 0;
    for (const auto &[offset, word] : {std::pair{timing_a, &timing}, std::pair{status_a, &status_word},
                                       std::pair{time_status_a, &ended}, std::pair{internal_frames, &frames}})
        if (const int status = read_word(path, card, offset, *word); status != 0)
            return status;
    const std::uint32_t source = timing & source_bits;
    progress.asked = source == plr3_timing_software                  ? 1
                     : source == plr3_timing_internal && frames != 0 ? frames
                                                                     : leaf.scaler_num_tf;
    progress.running = (status_word & is_running) != 0;
    progress.counting = (status_word & is_counting) != 0;
    progress.reached = ended;
    if (plr3_has_histograms(leaf) && (leaf.run_flags & plr3_run_hist) != 0 && leaf.dummy_system == PulsarReal)
        for (int chan = 0; chan < leaf.num_chan; ++chan) {
            Histogram &h = *leaf.histogram[static_cast<std::size_t>(chan)];
            progress.reached = std::min(progress.reached, std::uint64_t{h.frames.counts.reached});
        }
    return 0;
}

} // namespace kestrel
