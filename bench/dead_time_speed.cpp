// Dead-time factors of 1000 frames of 48 channels against the plain loop of the bisection, with one and two threads; and
// corrected histograms against histograms as doubles. Short turns of one and the
// other; medians of their ratios.
#include "pulsar3/lib/config/config.h"
#include "pulsar3/lib/counts/corrected.h"
#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/lib/counts/histogram_read.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <random>
#include <sys/mman.h>
#include <vector>

using namespace kestrel;

namespace {

constexpr int frames = 1000, channels = 48, cards = 3;
constexpr std::size_t values = std::size_t{frames} * channels;
constexpr double period = 1.25e-8;
constexpr int turns = 15;

struct dead_times {
    double a, b, c, d;
};

// The system: three cards of 16 channels that are not there.
void open_system() {
    PLR3Path &node = Plr3Sys[0];
    node.valid = node.type = 1;
    node.num_cards = cards;
    node.num_chan = node.max_num_chan = channels;
    for (int card = 0; card < cards; ++card) {
        node.sub_path[static_cast<std::size_t>(card)] = card + 1;
        PLR3Path &leaf = Plr3Sys[static_cast<std::size_t>(card) + 1];
        leaf.valid = leaf.num_cards = 1;
        leaf.num_chan = leaf.max_num_chan = leaf.chans_per_card = channels / cards;
    }
}

void set(int chan, const dead_times &t) {
    ChannelDTC p;
    p.processDeadTimeAllEventOffset = t.a;
    p.processDeadTimeAllEventRateOffset = t.b;
    p.processDeadTimeInWindowOffset = t.c;
    p.processDeadTimeInWindowRateOffset = t.d;
    if (plr3_setDeadtimeCorrectionParameters2(0, chan, p) != 0)
        std::abort();
}

// What the loop costs when it is written down as it is read.
double plain_factor(const dead_times &t, const std::uint32_t *s, double *estimate) {
    const auto f = [&t](double x) { return x * std::exp(-x * (t.b * x + t.a)); };
    const double time = s[0], live = time - s[1], seen = s[3] / (live * period);
    const double range = t.b != 0 ? (std::sqrt(t.a * t.a + 8 * t.b) - t.a) / (4 * t.b) : 1 / t.a;
    const double peak = t.b != 0 ? f(range) : 0.36787944117144233 / t.a;
    double x = range;
    if (seen <= peak) {
        x = 0;
        double step = range;
        for (int k = 1; k <= 56; ++k) {
            step *= 0.5;
            if (const double candidate = step + x; f(candidate) <= seen)
                x = candidate;
        }
    }
    *estimate = x * time * period;
    return time / live * std::exp(2.0 * x * (t.c + t.d * x));
}

double seconds(const std::function<void()> &work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> v) {
    std::ranges::nth_element(v, v.begin() + static_cast<std::ptrdiff_t>(v.size() / 2));
    return v[v.size() / 2];
}

struct comparison {
    double first, second, ratio; // median seconds, median of first / second
};

comparison compare(const std::function<void()> &first, const std::function<void()> &second) {
    std::vector<double> a, b, ratio;
    for (int turn = 0; turn < turns; ++turn) {
        a.push_back(seconds(first));
        b.push_back(seconds(second));
        ratio.push_back(a.back() / b.back());
    }
    return {median(a), median(b), median(ratio)};
}

int factors(bool with_rate_terms) {
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> part(0, 1);
    std::vector<dead_times> t;
    for (int chan = 0; chan < channels; ++chan) {
        t.push_back({3e-7 + 2e-7 * part(random), with_rate_terms ? 2e-14 * part(random) : 0, 3e-7, 0});
        set(chan, t.back());
    }
    std::vector<std::uint32_t> readings(values * plr3_nr_scalers);
    for (std::size_t i = 0; i < values; ++i) { // rates over three decades, up to 8e5 a second seen
        readings[i * plr3_nr_scalers] = 8000000;
        readings[i * plr3_nr_scalers + 1] = 80000;
        readings[i * plr3_nr_scalers + 3] = static_cast<std::uint32_t>(6e4 * std::pow(10, -3 * part(random)));
    }
    std::vector<double> plain(values), inputs(values), fast(values), estimates(values);
    const auto loop = [&] {
        for (std::size_t i = 0; i < values; ++i)
            plain[i] = plain_factor(t[i % channels], &readings[i * plr3_nr_scalers], &inputs[i]);
    };
    const auto ours = [&](unsigned threads) {
        if (plr3_calculateDeadtimeCorrectionFactors(0, readings, fast, estimates, frames, 0, channels,
                                                    threads) != 0)
            std::abort();
    };
    const comparison one = compare(loop, [&] { ours(1); });
    const comparison two = compare([&] { ours(1); }, [&] { ours(2); });
    const auto same = [](double x, double y) {
        return std::bit_cast<std::uint64_t>(x) == std::bit_cast<std::uint64_t>(y);
    };
    const bool right = std::ranges::equal(plain, fast, same) && std::ranges::equal(inputs, estimates, same);
    std::printf(
        "factors of %zu values%s: plain loop %.1f ms, one thread %.2f ms: %.2f times; two threads %.2f times that; "
        "%s\n",
        values, with_rate_terms ? ", rate terms" : "", 1e3 * one.first, 1e3 * one.second, one.ratio,
        two.ratio, right ? "the same bits" : "OTHER BITS");
    return right ? 0 : 1;
}

// A dummy card of 12 channels with so many frames in its module; closed and gone when `work` is done.
void with_histograms(int held, const std::function<void(int path)> &work) {
    plr3_message_hook = [](int, std::string_view) {};
    plr3_request request;
    request.message_to = 0; // not to the terminal
    request.ncards = 1;
    request.num_tf = held;
    request.card_index = 61;
    request.dummy_system = PulsarDummy3V7;
    const int path = plr3_config_init(request);
    if (path < 0 || plr3_histogram_test_pattern(path, false) != 0) {
        std::fprintf(stderr, "dead_time_speed: %s\n", plr3_get_error_message());
        std::exit(1);
    }
    work(path);
    plr3_close(path);
    for (const char *name : {"plr3_hist61", "plr3_scalers61", "plr3_tf_status61", "plr3_progress61"})
        ::shm_unlink(name);
}

// Rows become doubles where they were read to, row by row, as corrected ones do.
void read_doubles(int path, double *to, int chans, int held) {
    for (int tf = 0; tf < held; ++tf)
        for (int chan = 0; chan < chans; ++chan, to += plr3_default_bins) {
            auto *const counts = reinterpret_cast<std::uint32_t *>(to) + plr3_default_bins;
            if (plr3_histogram_read4d(path, counts, 0, 0, chan, tf, plr3_default_bins, 1, 1, 1) != 0)
                std::abort();
            plr3_dtc_multiply(counts, to, plr3_default_bins, 1.0);
        }
}

void histograms(int held) {
    with_histograms(held, [held](int path) {
        constexpr int chans = 12;
        if (plr3_setDeadtimeCorrectionParameters(path, -1, 0, 0, 4e-7, 3e-7, 0) != 0)
            std::abort();
        std::vector<double> plain(std::size_t{plr3_default_bins} * chans * static_cast<std::size_t>(held));
        std::vector<double> corrected(plain.size());
        const comparison c = compare([&] { read_doubles(path, plain.data(), chans, held); },
                                     [&] {
                                         if (plr3_hist_dtc_read4d(path, corrected.data(), 0, 0, 0, 0,
                                                                  plr3_default_bins, 1, chans, held) != 0)
                                             std::abort();
                                     });
        std::printf(
            "%d frames of %d channels of %d bins: doubles %.2f ms, corrected %.2f ms: %.2f times as fast\n",
            held, chans, plr3_default_bins, 1e3 * c.first, 1e3 * c.second, c.ratio);
    });
}

} // namespace

int main() {
    open_system();
    const int wrong = factors(false) + factors(true);
    for (const int path : {0, 1, 2, 3})
        plr3_reset(Plr3Sys[static_cast<std::size_t>(path)]);
    histograms(4);
    histograms(160);
    return wrong;
}
