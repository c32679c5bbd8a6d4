// The root of the dead-time model to the last bit, factors and estimates, and the multiplication of rows.
#include "pulsar3/lib/config/config.h"
#include "pulsar3/lib/counts/corrected.h"
#include "pulsar3/lib/counts/dead_time.h"
#include "pulsar3/lib/counts/histogram_read.h"
#include "pulsar3/lib/counts/scalers.h"
#include "support/rate_solver.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <sys/mman.h>
#include <vector>

using namespace kestrel;

namespace {

constexpr double infinity = std::numeric_limits<double>::infinity();
constexpr double nan_value = std::numeric_limits<double>::quiet_NaN();
constexpr double denormal = std::numeric_limits<double>::denorm_min();
constexpr double largest = std::numeric_limits<double>::max();

// The algorithm once more, as it is written down, sharing nothing with the library.
double root_as_written(double a, double b, double r) {
    const auto f = [&](double x) { return x * std::exp(-x * (b * x + a)); };
    const double square = a * a + 8 * b;
    double range, peak;
    bool saturates = true;
    if (b != 0 && square > 0) {
        range = (std::sqrt(square) - a) / (4 * b);
        peak = f(range);
    } else {
        peak = 0.36787944117144233 / a;
        range = 1 / a;
        if (b != 0) {
            range = r > peak ? 2 * r : 1.8 / a;
            saturates = false;
        }
    }
    if (r < 0)
        return 0;
    if (a == 0 && b == 0)
        return r;
    if (saturates && r > peak)
        return range;
    double x = 0;
    for (int k = 1; k <= 56; ++k) {
        const double candidate = range / std::exp2(k) + x;
        if (f(candidate) <= r)
            x = candidate;
    }
    return x;
}

bool same_bits(double x, double y) {
    return std::bit_cast<std::uint64_t>(x) == std::bit_cast<std::uint64_t>(y) ||
           (std::isnan(x) && std::isnan(y));
}

struct parameters {
    double a, b;
};

// Every rate of the list, each on every width of lanes.
void expect_same(const std::vector<parameters> &channels, const std::vector<double> &rates) {
    std::vector<dtc_lanes> widths = {dtc_lanes::two};
    if (dtc_widest_lanes() != dtc_lanes::two)
        widths.push_back(dtc_widest_lanes());
    std::vector<dtc_terms> terms;
    for (const parameters &p : channels)
        terms.push_back(dtc_make_terms(p.a, p.b, 0, 0));
    std::vector<dtc_rate> values;
    for (std::size_t i = 0; i < rates.size(); ++i)
        values.push_back({&terms[i % terms.size()], rates[i]});
    for (const dtc_lanes width : widths) {
        for (dtc_rate &value : values)
            value.found = -1;
        dtc_solve(values, width);
        int wrong = 0;
        for (const dtc_rate &value : values) {
            const double wanted = root_as_written(value.terms->a, value.terms->b, value.seen);
            if (!same_bits(wanted, value.found) && ++wrong <= 5)
                ADD_FAILURE() << std::hexfloat << "a=" << value.terms->a << " b=" << value.terms->b
                              << " r=" << value.seen << ": " << value.found << ", not " << wanted;
        }
        EXPECT_EQ(wrong, 0) << "of " << values.size();
    }
}

class numbers {
  public:
    double real() { return std::uniform_real_distribution<double>(0, 1)(source_); }
    double decades(double from, double to) { return from * std::pow(to / from, real()); }
    double sign() { return real() < 0.5 ? -1 : 1; }
    double any() { return std::bit_cast<double>(source_()); }

  private:
    std::mt19937_64 source_{20};
};

double peak_of(const parameters &p) {
    const dtc_terms t = dtc_make_terms(p.a, p.b, 0, 0);
    return std::isfinite(t.peak) && t.peak > 0 ? t.peak : 1e6;
}

// Of each kind; the sanitizers' builds are ten times slower.
#ifdef NDEBUG
constexpr int cases = 400000;
#else
constexpr int cases = 40000;
#endif

TEST(DeadTimeRoot, HasTheBitsOfTheBisectionForUsualChannels) {
    numbers n;
    for (const bool with_b : {false, true}) {
        std::vector<parameters> channels;
        for (int i = 0; i < 1000; ++i)
            channels.push_back({n.decades(1e-8, 1e-4), with_b ? n.decades(1e-18, 1e-8) : 0});
        std::vector<double> rates;
        for (int i = 0; i < cases; ++i)
            rates.push_back(peak_of(channels[static_cast<std::size_t>(i) % 1000]) * n.decades(1e-5, 1.001));
        expect_same(channels, rates);
    }
}

TEST(DeadTimeRoot, HasTheBitsOfTheBisectionNearThePeak) {
    numbers n;
    std::vector<parameters> channels;
    for (int i = 0; i < 1000; ++i)
        channels.push_back({n.decades(1e-8, 1e-4), i % 2 ? n.decades(1e-18, 1e-8) : 0});
    std::vector<double> rates;
    for (int i = 0; i < cases; ++i)
        rates.push_back(peak_of(channels[static_cast<std::size_t>(i) % 1000]) *
                        (1 - n.sign() * n.decades(1e-17, 0.1)));
    expect_same(channels, rates);
}

TEST(DeadTimeRoot, HasTheBitsOfTheBisectionWhateverTheSigns) {
    numbers n;
    std::vector<parameters> channels;
    for (int i = 0; i < 2000; ++i) {
        const double a = n.sign() * n.decades(1e-8, 1e-4);
        const double relative = i % 4 == 0 ? n.decades(1e-18, 1e-3) : n.decades(1e-3, 10);
        channels.push_back({i % 7 == 0 ? 0 : a, n.sign() * a * a * relative});
    }
    for (int i = 0; i < 100; ++i) { // about where the model loses its peak
        const double a = n.decades(1e-8, 1e-4);
        channels.push_back({a, -a * a / 8 * (1 + n.sign() * n.decades(1e-17, 1e-2))});
    }
    std::vector<double> rates;
    for (std::size_t i = 0; i < cases; ++i)
        rates.push_back(peak_of(channels[i % channels.size()]) * n.decades(1e-4, 3));
    expect_same(channels, rates);
}

TEST(DeadTimeRoot, HasTheBitsOfTheBisectionForAnyBits) {
    numbers n;
    std::vector<parameters> channels = {{0, 0}, {0, 1e-14}, {0, -1e-14}, {1e-7, 0}, {-1e-7, 0}};
    const double odd[] = {0.0,   -0.0,  denormal, -denormal, 1e-310,   1e-300,    1e-160,    1e-100, 1e100,
                          1e160, 1e300, largest,  -largest,  infinity, -infinity, nan_value, 1.0};
    for (const double a : odd)
        for (const double b : odd)
            channels.push_back({a, b});
    for (int i = 0; i < 2000; ++i)
        channels.push_back({n.any(), n.any()});
    std::vector<double> rates;
    for (const double r : odd)
        rates.insert(rates.end(), channels.size(), r);
    for (int i = 0; i < cases / 4; ++i)
        rates.push_back(n.any());
    for (std::size_t i = 0; i < cases / 4; ++i)
        rates.push_back(1 / std::fabs(channels[i % channels.size()].a) * n.real());
    // Usual channels with odd rates
    expect_same(channels, rates);
    expect_same({{4e-7, 0}, {4e-7, 1e-14}, {0, 1e-13}}, rates);
}

TEST(DeadTimeRoot, IsTheRootOnTheRisingSide) {
    const dtc_terms t = dtc_make_terms(1e-6, 0, 0, 0);
    dtc_rate rates[] = {{&t, 3e5}, {&t, 5e5}, {&t, 0.3678e6}, {&t, -1}, {&t, 0}};
    dtc_solve(rates);
    EXPECT_NEAR(rates[0].found * std::exp(-1e-6 * rates[0].found), 3e5, 1e-9);
    EXPECT_EQ(rates[1].found, 1e6); // above the peak: saturated
    EXPECT_LT(rates[2].found, 1e6);
    EXPECT_EQ(rates[3].found, 0);
    EXPECT_EQ(rates[4].found, 0);
}

// ---- factors of a path

// An open path of a card that is not there, closed with the object.
class open_path {
  public:
    explicit open_path(int channels) {
        PLR3Path &p = Plr3Sys[0];
        p.valid = p.num_cards = 1;
        p.num_chan = p.max_num_chan = p.chans_per_card = channels;
    }
    ~open_path() { plr3_reset(Plr3Sys[0]); }
    open_path(const open_path &) = delete;
    open_path &operator=(const open_path &) = delete;
};

using scalers = std::array<std::uint32_t, plr3_nr_scalers>;

TEST(DeadTimeFactors, FollowFromParametersAndEnergy) {
    const open_path path(4);
    ChannelDTC p;
    p.processDeadTimeAllEventGradient = 2e-8;
    p.processDeadTimeAllEventOffset = 3e-7;
    p.processDeadTimeInWindowGradient = 1e-8;
    p.processDeadTimeInWindowOffset = 2e-7;
    p.processDeadTimeAllEventRateOffset = 1e-15;
    p.processDeadTimeInWindowRateGradient = 1e-15;
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters2(0, -1, p), 0);
    ASSERT_EQ(plr3_setDeadtimeCalculationEnergy(0, 5), 0);
    p.flags = plr3_dtc_omit;
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters2(0, 1, p), 0);
    p.flags = plr3_dtc_use_good_event;
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters2(0, 2, p), 0);
    const scalers one = {80000000, 800000, 1, 400000, 390000, 1000, 2000, 7, 8};
    std::vector<std::uint32_t> readings;
    for (int i = 0; i < 8; ++i)
        readings.insert(readings.end(), one.begin(), one.end());
    std::vector<double> factors(8), estimates(8);
    ASSERT_EQ(plr3_calculateDeadtimeCorrectionFactors(0, readings, factors, estimates, 2, 0, 4), 0);
    for (std::size_t i = 0; i < 8; ++i) {
        const double counted = i % 4 == 2 ? 390000 : 400000, live = (80000000.0 - 800000.0) * 1.25e-8;
        const double x = root_as_written(4e-7, 1e-15, counted / live);
        EXPECT_EQ(factors[i],
                  i % 4 == 1 ? 0 : 80000000.0 / 79200000.0 * std::exp(2 * x * (2.5e-7 + 5e-15 * x)));
        EXPECT_EQ(estimates[i], i % 4 == 1 ? 0 : x * 80000000 * 1.25e-8);
    }
    // The energy is left out where it or the gradient is 0.
    ASSERT_EQ(plr3_setDeadtimeCalculationEnergy(0, 0), 0);
    ASSERT_EQ(plr3_calculateDeadtimeCorrectionFactors(0, readings, factors, {}, 2, 0, 4), 0);
    const double x = root_as_written(3e-7, 1e-15, 400000 / 0.99);
    EXPECT_EQ(factors[0], 80000000.0 / 79200000.0 * std::exp(2 * x * 2e-7));
}

TEST(DeadTimeFactors, OfOneFrameAreThoseOfTheBatch) {
    const open_path path(1);
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters(0, 0, 0, 0, 4e-7, 3e-7, 0), 0);
    const scalers one = {80000000, 800000, 0, 400000};
    double factor = 0, estimate = 0, single = 0;
    ASSERT_EQ(plr3_calculateDeadtimeCorrectionFactors(0, one, {&factor, 1}, {&estimate, 1}, 1, 0, 1), 0);
    EXPECT_EQ(plr3_dtc(0, one[3], one[1], one[0], 4e-7, 0, 3e-7, 0, &single), factor);
    EXPECT_EQ(single, estimate);
    EXPECT_EQ(plr3_dtc(0, 5, 0, 80, 0, 0, 0, 0, nullptr), 1.0);
    EXPECT_EQ(plr3_dtc(3, 5, 0, 80, 0, 0, 0, 0, nullptr), plr3_invalid_path);
}

TEST(DeadTimeFactors, AreFiniteForFramesWithoutLiveTimeOrCounts) {
    const open_path path(1);
    struct {
        double a;
        scalers counts;
        double factor, estimate;
    } const rows[] = {
        {4e-7, {}, 1, 0},                             // a frame that never was
        {4e-7, {1000, 1000, 0, 0}, 1, 0},             // all of it lost to resets
        {4e-7, {1000, 1000, 0, 50}, 1, 50},           // and counts in none of it
        {0, {1000, 1000, 0, 50}, 1, 50},              //
        {4e-7, {80000000, 0, 0, 0}, 1, 0},            // nothing counted
        {0, {80000000, 0, 0, 12345}, 1, 12345},       // no dead time at all
        {0, {80000000, 40000000, 0, 1000}, 2, 2000},  // but resets
        {4e-7, {1000, 2000, 0, 50}, -1, 0},           // more resets than time: a rate below 0
        {1e-6, {80000000, 0, 0, 4000000000}, 1, 1e6}, // saturated
    };
    for (const auto &row : rows) {
        ASSERT_EQ(plr3_setDeadtimeCorrectionParameters(0, 0, 0, 0, row.a, 0, 0), 0);
        double factor = -5, estimate = -5;
        ASSERT_EQ(
            plr3_calculateDeadtimeCorrectionFactors(0, row.counts, {&factor, 1}, {&estimate, 1}, 1, 0, 1), 0);
        EXPECT_DOUBLE_EQ(factor, row.factor) << row.counts[3] << " in " << row.counts[0];
        EXPECT_DOUBLE_EQ(estimate, row.estimate) << row.counts[3] << " in " << row.counts[0];
    }
}

TEST(DeadTimeFactors, AreTheSameOnAnyNumberOfThreads) {
    const open_path path(16);
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters(0, -1, 0, 0, 4e-7, 3e-7, 0), 0);
    constexpr std::size_t frames = 700, values = frames * 16;
    std::mt19937 random(3);
    std::vector<std::uint32_t> readings(values * plr3_nr_scalers);
    for (std::size_t i = 0; i < values; ++i) {
        readings[i * plr3_nr_scalers] = 800000;
        readings[i * plr3_nr_scalers + 3] = static_cast<std::uint32_t>(random() % 12000);
    }
    std::vector<double> factors(values), estimates(values), wanted(values), inputs(values);
    ASSERT_EQ(plr3_calculateDeadtimeCorrectionFactors(0, readings, wanted, inputs, frames, 0, 16, 1), 0);
    for (const unsigned threads : {0U, 2U, 3U, 16U, 1000U}) {
        std::ranges::fill(factors, -1);
        ASSERT_EQ(
            plr3_calculateDeadtimeCorrectionFactors(0, readings, factors, estimates, frames, 0, 16, threads),
            0);
        EXPECT_EQ(factors, wanted) << threads;
        EXPECT_EQ(estimates, inputs) << threads;
    }
}

TEST(DeadTimeFactors, RefuseWhatIsNotThere) {
    const open_path path(4);
    std::vector<std::uint32_t> readings(4 * plr3_nr_scalers);
    std::vector<double> factors(4);
    struct {
        int path, frames, first, count, status;
    } const rows[] = {{1, 1, 0, 4, plr3_invalid_path},         {-1, 1, 0, 4, plr3_invalid_path},
                      {0, 1, 4, 1, plr3_out_of_range},         {0, 1, -1, 1, plr3_out_of_range},
                      {0, 1, 1, 4, plr3_out_of_range},         {0, 0, 0, 4, plr3_out_of_range},
                      {0, 2, 0, 4, plr3_out_of_range},         {0, 1, 0, 0, plr3_out_of_range},
                      {0, 1, 1, 2147483647, plr3_out_of_range}};
    for (const auto &row : rows)
        EXPECT_EQ(plr3_calculateDeadtimeCorrectionFactors(row.path, readings, factors, {}, row.frames,
                                                          row.first, row.count),
                  row.status);
    EXPECT_EQ(plr3_setDeadtimeCorrectionParameters(0, 4, 0, 0, 0, 0, 0), plr3_out_of_range);
    EXPECT_EQ(plr3_setDeadtimeCorrectionParameters(0, -2, 0, 0, 0, 0, 0), plr3_out_of_range);
    EXPECT_EQ(plr3_setDeadtimeCorrectionParameters(0, 0, 4, 0, 0, 0, 0), plr3_out_of_range);
    EXPECT_EQ(plr3_setDeadtimeCorrectionParameters(0, 0, 0, 0, nan_value, 0, 0), plr3_out_of_range);
    EXPECT_EQ(plr3_setDeadtimeCalculationEnergy(0, infinity), plr3_out_of_range);
    EXPECT_EQ(plr3_check_sub_frames("test", 0, {0, 1}), 0);
    EXPECT_EQ(plr3_check_sub_frames("test", 0, {0, 2}), plr3_out_of_range);
    EXPECT_EQ(plr3_check_sub_frames("test", 0, {1, 1}), plr3_out_of_range);
    EXPECT_EQ(plr3_check_sub_frames("test", 1, {0, 1}), plr3_invalid_path);
}

TEST(DeadTimeFactors, SettingTheFixedPartKeepsTheRates) {
    const open_path path(2);
    ChannelDTC p;
    p.processDeadTimeAllEventRateOffset = 5e-15;
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters2(0, -1, p), 0);
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters(0, 1, 2, 1e-8, 2e-8, 3e-8, 4e-8), 0);
    ChannelDTC got;
    ASSERT_EQ(plr3_getDeadtimeCorrectionParameters2(0, 1, got), 0);
    EXPECT_EQ(got.processDeadTimeAllEventRateOffset, 5e-15);
    EXPECT_EQ(got.processDeadTimeAllEventGradient, 1e-8);
    EXPECT_EQ(got.processDeadTimeAllEventOffset, 2e-8);
    EXPECT_EQ(got.processDeadTimeInWindowOffset, 3e-8);
    EXPECT_EQ(got.processDeadTimeInWindowGradient, 4e-8);
    EXPECT_EQ(got.flags, 2);
    ASSERT_EQ(plr3_getDeadtimeCorrectionParameters2(0, 0, got), 0);
    EXPECT_EQ(got.processDeadTimeAllEventOffset, 0);
}

// ---- rows

TEST(CorrectedRows, MayBeMultipliedWhereTheyLie) {
    for (const std::size_t count : {0U, 1U, 2U, 7U, 1023U, 1024U, 1025U, 4096U, 5000U}) {
        std::vector<std::uint32_t> counts(count);
        std::mt19937 random(static_cast<unsigned>(count));
        for (std::uint32_t &c : counts)
            c = static_cast<std::uint32_t>(random());
        std::vector<double> apart(count), inside(count);
        plr3_dtc_multiply(counts.data(), apart.data(), count, 1.2345);
        for (std::size_t i = 0; i < count; ++i)
            ASSERT_EQ(apart[i], counts[i] * 1.2345);
        auto *tail = reinterpret_cast<std::uint32_t *>(inside.data()) + count;
        std::copy(counts.begin(), counts.end(), tail);
        plr3_dtc_multiply(tail, inside.data(), count, 1.2345);
        EXPECT_EQ(inside, apart) << count;
    }
}

// ---- histograms of a card that is not there, in modules of their own

class dummy_system {
  public:
    static constexpr int frames = 3, index = 61;

    dummy_system() {
        plr3_message_hook = [](int, std::string_view) {};
        plr3_request request;
        request.message_to = 0; // not to the terminal
        request.ncards = 1;
        request.num_tf = frames;
        request.card_index = index;
        request.dummy_system = PulsarDummy3;
        path = plr3_config_init(request);
    }
    ~dummy_system() {
        plr3_close(path);
        plr3_message_hook = nullptr;
        for (const char *name : {"plr3_hist61", "plr3_scalers61", "plr3_tf_status61", "plr3_progress61"})
            ::shm_unlink(name);
    }
    dummy_system(const dummy_system &) = delete;
    dummy_system &operator=(const dummy_system &) = delete;

    // A tenth of a second in each frame; events rise from channel to channel and frame to frame.
    void fill() const {
        const module_view &view = Plr3Sys[static_cast<std::size_t>(path)].scalers_mod.view();
        for (int t = 0; t < frames; ++t)
            for (int c = 0; c < 4; ++c) {
                auto *s = reinterpret_cast<std::uint32_t *>(view.at(0, c, t));
                s[plr3_scaler_time] = 8000000;
                s[plr3_scaler_all_event] = static_cast<std::uint32_t>(10000 * (t + 1) + 1000 * c);
            }
    }

    int path = -1;
};

TEST(CorrectedHistograms, AreTheCountsTimesTheFactorOfChannelAndFrame) {
    const dummy_system system;
    ASSERT_GE(system.path, 0) << plr3_get_error_message();
    system.fill();
    ASSERT_EQ(plr3_histogram_test_pattern(system.path, false), 0);
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters(system.path, -1, 0, 0, 4e-7, 3e-7, 0), 0);
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters(system.path, 2, plr3_dtc_omit, 0, 4e-7, 3e-7, 0), 0);
    constexpr std::size_t bins = 100, channels = 3, frames = 2;
    std::vector<std::uint32_t> counts(bins * channels * frames), scaler(9 * channels * frames);
    std::vector<double> factors(channels * frames), corrected(counts.size());
    ASSERT_EQ(plr3_histogram_read4d(system.path, counts.data(), 7, 0, 1, 1, bins, 1, channels, frames), 0);
    ASSERT_EQ(plr3_hist_dtc_read4d(system.path, corrected.data(), 7, 0, 1, 1, bins, 1, channels, frames), 0);
    ASSERT_EQ(plr3_scaler_read(system.path, scaler, {0, 1, 1, 9, channels, frames}), 0);
    ASSERT_EQ(plr3_calculateDeadtimeCorrectionFactors(system.path, scaler, factors, {}, frames, 1, channels),
              0);
    for (std::size_t i = 0; i < counts.size(); ++i)
        ASSERT_EQ(corrected[i], counts[i] * factors[i / bins]) << i;
    EXPECT_GT(factors[0], 1);
    EXPECT_EQ(factors[1], 0);
    EXPECT_GT(factors[3], factors[0]);
    std::vector<double> one(bins * channels);
    ASSERT_EQ(plr3_hist_dtc_read3d(system.path, one.data(), 7, 0, 1, bins, 1, channels, 2), 0);
    EXPECT_TRUE(std::equal(one.begin(), one.end(), corrected.begin() + bins * channels));
    ASSERT_EQ(plr3_hist_dtc_read4d_sf(system.path, one.data(), 7, 0, 1, 2, bins, 1, channels, 1, {0, 1}), 0);
    ASSERT_EQ(plr3_hist_dtc_read3d_sf(system.path, one.data(), 7, 0, 1, bins, 1, channels, 2, {0, 1}), 0);
    EXPECT_EQ(plr3_hist_dtc_read4d_sf(system.path, one.data(), 7, 0, 1, 2, bins, 1, channels, 1, {0, 2}),
              plr3_out_of_range);
    EXPECT_EQ(plr3_hist_dtc_read3d_sf(system.path, one.data(), 7, 0, 1, bins, 1, channels, 2, {1, 1}),
              plr3_out_of_range);
    EXPECT_EQ(plr3_scaler_read_sf(system.path, scaler, {0, 1, 1, 9, channels, frames}, {1, 1}),
              plr3_out_of_range);
    EXPECT_EQ(plr3_scaler_dtc_read_sf(system.path, corrected, {0, 1, 1, 9, channels, frames}, {0, 3}),
              plr3_out_of_range);
}

TEST(CorrectedHistograms, OfACircularBufferGoOnFromTheFirstFrame) {
    const dummy_system system;
    ASSERT_GE(system.path, 0) << plr3_get_error_message();
    system.fill();
    ASSERT_EQ(plr3_histogram_test_pattern(system.path, false), 0);
    ASSERT_EQ(plr3_setDeadtimeCorrectionParameters(system.path, -1, 0, 0, 4e-7, 3e-7, 0), 0);
    std::vector<double> straight(4 * 3 * 10), around(straight.size());
    ASSERT_EQ(plr3_hist_dtc_read4d(system.path, straight.data(), 0, 0, 0, 0, 10, 1, 4, 3), 0);
    Plr3Sys[static_cast<std::size_t>(system.path)].run_flags |= plr3_run_circular;
    ASSERT_EQ(plr3_hist_dtc_read4d(system.path, around.data(), 0, 0, 0, 5, 10, 1, 4, 3), 0); // frames 2, 0, 1
    EXPECT_TRUE(std::equal(straight.begin() + 80, straight.end(), around.begin()));
    EXPECT_TRUE(std::equal(straight.begin(), straight.begin() + 80, around.begin() + 40));
    ASSERT_EQ(plr3_hist_dtc_read4d(system.path, around.data(), 0, 0, 0, 2147483647, 10, 1, 4, 3),
              0); // from 1 on
    EXPECT_TRUE(std::equal(straight.begin() + 40, straight.end(), around.begin()));
    EXPECT_EQ(plr3_hist_dtc_read4d(system.path, around.data(), 0, 0, 0, 0, 10, 1, 4, 4), plr3_out_of_range);
}

TEST(CorrectedHistograms, RefuseRegionsThatAreNotThere) {
    const dummy_system system;
    ASSERT_GE(system.path, 0) << plr3_get_error_message();
    std::vector<double> to(4096);
    struct {
        int path, eng, aux, chan, tf, num_eng, num_aux, num_chan, num_tf, status;
    } const rows[] = {
        {33, 0, 0, 0, 0, 1, 1, 1, 1, plr3_invalid_path},
        {0, 0, 0, 0, 0, 0, 1, 1, 1, plr3_out_of_range},
        {0, 0, 0, 0, 0, 1, -1, 1, 1, plr3_out_of_range},
        {0, 0, 0, 0, 0, 1, 1, 0, 1, plr3_out_of_range},
        {0, 0, 0, 0, 0, 1, 1, 1, -2, plr3_out_of_range},
        {0, 4090, 0, 0, 0, 7, 1, 1, 1, plr3_out_of_range},
        {0, 0, 1, 0, 0, 1, 1, 1, 1, plr3_out_of_range},
        {0, 0, 0, 4, 0, 1, 1, 1, 1, plr3_out_of_range},
        {0, 0, 0, 2147483647, 0, 1, 1, 2147483647, 1, plr3_out_of_range},
        {0, 0, 0, 3, 0, 1, 1, 2, 1, plr3_out_of_range},
        {0, 0, 0, 0, 2, 1, 1, 1, 2, plr3_out_of_range},
        {0, 0, 0, 0, -1, 1, 1, 1, 1, plr3_out_of_range},
    };
    for (const auto &r : rows)
        EXPECT_EQ(plr3_hist_dtc_read4d(r.path ? r.path : system.path, to.data(), r.eng, r.aux, r.chan, r.tf,
                                       r.num_eng, r.num_aux, r.num_chan, r.num_tf),
                  r.status)
            << plr3_get_error_message();
}

} // namespace
