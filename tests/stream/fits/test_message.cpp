// What a command and its workers say to each other comes through as it was, and nothing else does.
#include "stream/fits/message.h"

#include "maths/peak_fit/results.h"

#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

using namespace kestrel;
using namespace kestrel::stream;

namespace {

constexpr std::uint64_t id = 0x0123456789abcdef;
constexpr int channels = 100;

fit_job a_job() {
    fit_job job{id, {}, channels, el_long};
    job.request.lines = *peak_fit_find_element("mo"); // with a tied height
    job.request.first = 3;
    job.request.last = 97;
    job.request.single_pass = 4;
    job.request.constraints = peak_fit_by_top_sum;
    job.request.width = 4.5;
    return job;
}

// Counts that take no byte, one, two or four, and which tell where they are.
std::uint32_t count_at(std::size_t i, std::size_t j, std::size_t k) {
    constexpr std::uint32_t scale[] = {0, 1, 1000, 400000};
    return static_cast<std::uint32_t>(10000 * i + 100 * j + k) * scale[j % std::size(scale)];
}

// 40 x 3 spectra in any layout.
struct scan {
    std::vector<std::uint32_t> elements = std::vector<std::uint32_t>(channels * 40 * 3);
    peak_spectra spectra;
    explicit scan(bool energy_first) {
        const std::size_t energy = energy_first ? 1 : 40 * 3, q = energy_first ? channels : 1,
                          s = energy_first ? channels * 40 : 40;
        for (std::size_t i = 0; i < 3; ++i)
            for (std::size_t j = 0; j < 40; ++j)
                for (std::size_t k = 0; k < channels; ++k)
                    elements[k * energy + j * q + i * s] = count_at(i, j, k);
        spectra = {reinterpret_cast<const std::byte *>(elements.data()),
                   el_long,
                   4 * energy,
                   4 * q,
                   4 * s,
                   channels,
                   40,
                   3};
    }
};

fit_result a_result() {
    fit_result result{5, 1234, {}};
    result.points.push_back({peak_fit_status::fitted, true, false, {1.0, -0.0, 5e-324}});
    result.points.push_back(
        {peak_fit_status::failed, false, false, {-1.0, NAN, INFINITY}}); // totals of a bad spectrum
    result.points.push_back({peak_fit_status::insufficient, false, true, {-1.0, 0.0, 2.0}});
    return result;
}

std::string cause;
std::vector<std::uint32_t> counts; // of the block that was read last

std::optional<fit_result> decode_result(std::string_view bytes) {
    return fit_decode_result(bytes, id, 5, 3, 3, cause);
}

// The message with some of its bytes replaced.
template <class T> std::string with(std::string bytes, std::size_t at, T value) {
    std::memcpy(bytes.data() + at, &value, sizeof value);
    return bytes;
}

} // namespace

TEST(fit_message, a_job_comes_through) {
    const fit_job job = a_job();
    const auto read = fit_decode_job(fit_encode_job(job), id, cause);
    ASSERT_TRUE(read) << cause;
    EXPECT_EQ(job.channels, read->channels);
    EXPECT_EQ(job.type, read->type);
    EXPECT_EQ(job.request.first, read->request.first);
    EXPECT_EQ(job.request.last, read->request.last);
    EXPECT_EQ(job.request.single_pass, read->request.single_pass);
    EXPECT_EQ(job.request.constraints, read->request.constraints);
    EXPECT_EQ(job.request.width, read->request.width);
    EXPECT_EQ(job.request.lines.num_peaks, read->request.lines.num_peaks);
    EXPECT_EQ(job.request.lines.energy, read->request.lines.energy);
    EXPECT_EQ(job.request.lines.height, read->request.lines.height);
    EXPECT_EQ(job.request.lines.tied, read->request.lines.tied);
    EXPECT_FALSE(read->request.tell);
}

TEST(fit_message, a_block_has_its_points_and_as_many_neighbours_as_there_are) {
    struct {
        fit_box box;
        int neighbours, first, last; // along q
    } const cases[] = {{{0, 39, 0, 2}, 0, 0, 39},
                       {{10, 12, 1, 1}, 0, 10, 12},
                       {{10, 12, 1, 1}, 16, 0, 28},
                       {{20, 39, 2, 2}, 16, 4, 39},
                       {{0, 0, 0, 0}, 16, 0, 16}};
    for (const bool energy_first : {true, false}) {
        const scan from(energy_first);
        for (const auto &c : cases) {
            const std::string bytes = fit_encode_block(id, 9, from.spectra, c.box, c.neighbours);
            const auto read = fit_decode_block(bytes, a_job(), counts, cause);
            ASSERT_TRUE(read) << cause;
            EXPECT_EQ(9, read->number);
            EXPECT_EQ(c.last - c.first + 1, read->spectra.nq);
            EXPECT_EQ(c.box.ns(), read->spectra.ns);
            EXPECT_EQ(c.box.q1 - c.first, read->q1);
            EXPECT_EQ(c.box.q2 - c.first, read->q2);
            std::vector<double> there, here;
            for (int s = 0; s < read->spectra.ns; ++s)
                for (int q = 0; q < read->spectra.nq; ++q) {
                    from.spectra.get(q + c.first, s + c.box.s1, there);
                    read->spectra.get(q, s, here);
                    ASSERT_EQ(there, here);
                }
        }
    }
}

TEST(fit_message, a_result_comes_through_to_the_bit) {
    const fit_result result = a_result();
    const std::string bytes = fit_encode_result(id, result);
    const auto read = decode_result(bytes);
    ASSERT_TRUE(read) << cause;
    EXPECT_EQ(bytes, fit_encode_result(id, *read));
    EXPECT_TRUE(read->points[0].near_ends && read->points[2].high_at_ends);
    EXPECT_EQ(1234, read->microseconds);
}

TEST(fit_message, what_is_cut_or_longer_is_refused_at_every_length) {
    const scan from(true);
    const std::string job = fit_encode_job(a_job()), result = fit_encode_result(id, a_result());
    const std::string block = fit_encode_block(id, 0, from.spectra, {0, 1, 0, 0}, 0);
    for (std::size_t size = 0; size <= block.size() + 1; ++size) {
        const auto cut = [size](std::string text) {
            return text.size() == size ? text + '\0' : (text.resize(size), text);
        };
        EXPECT_FALSE(fit_decode_job(cut(job), id, cause)) << size;
        EXPECT_FALSE(fit_decode_block(cut(block), a_job(), counts, cause)) << size;
        EXPECT_FALSE(decode_result(cut(result))) << size;
    }
}

TEST(fit_message, heads_that_are_not_ours_are_refused_with_the_cause) {
    const std::string good = fit_encode_result(id, a_result());
    const struct {
        std::string bytes;
        const char *cause;
    } cases[] = {
        {with(good, 0, std::uint32_t{0x4b464954}),
         "it is no message of ours, or one of a host with another byte order"},
        {with(good, 4, std::uint16_t{1}), "its version is 1, not 2"},
        {with(good, 6, std::uint16_t{2}), "it is a message of another kind"},
        {with(good, 8, std::uint64_t{1} << 62), "it has 136 bytes and should have 4611686018427387904"},
        {with(good, 16, id + 1), "it is of another job"},
        {with(good, 24, 6), "it is not of the block's points"},  // another block
        {with(good, 28, -3), "it is not of the block's points"}, // a count
        {with(good, 32, 4), "it is not of the block's points"},  // values
        {with(good, 36, -1), "its time is negative"},
        {with(good, 40, 3), "a point is neither fitted nor failed"},
        {with(good, 44, std::uint8_t{2}), "a point is neither fitted nor failed"},
        {with(good, 48, double{NAN}), "a fitted value is not a finite number"},
        {with(good, 64, HUGE_VAL), "a fitted value is not a finite number"},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(decode_result(c.bytes)) << c.cause;
        EXPECT_EQ(c.cause, cause);
    }
}

TEST(fit_message, jobs_that_make_no_sense_are_refused) {
    const auto changed = [](auto change) {
        fit_job job = a_job();
        change(job, job.request, job.request.lines);
        return fit_encode_job(job);
    };
    const std::string cases[] = {
        changed([](auto &job, auto &, auto &) { job.channels = 0; }),
        changed([](auto &job, auto &, auto &) { job.channels = 97; }), // and last is 97
        changed([](auto &job, auto &, auto &) { job.type = el_int48; }),
        changed([](auto &, auto &r, auto &) { r.first = -1; }),
        changed([](auto &, auto &r, auto &) { r.first = 98; }),
        changed([](auto &, auto &r, auto &) { r.single_pass = peak_fit_passes(); }),
        changed([](auto &, auto &r, auto &) { r.constraints = 4; }),
        changed([](auto &, auto &r, auto &) { r.width = NAN; }),
        changed([](auto &, auto &r, auto &) { r.width = -1.0; }),
        changed([](auto &, auto &, auto &lines) { lines.num_peaks = 0; }),
        changed([](auto &, auto &, auto &lines) { lines.num_peaks = peak_fit_max_peaks + 1; }),
        changed([](auto &, auto &, auto &lines) { lines.energy[1] = INFINITY; }),
        changed([](auto &, auto &, auto &lines) { lines.height[0] = -1.0; }),
        changed([](auto &, auto &, auto &lines) { lines.tied[0] = true; }),
        changed([](auto &, auto &, auto &lines) { lines.height[1] = 0.0; }), // which the third is tied to
    };
    for (const std::string &bytes : cases)
        EXPECT_FALSE(fit_decode_job(bytes, id, cause)) << &bytes - cases;
}

TEST(fit_message, blocks_that_lie_about_their_spectra_are_refused) {
    const scan from(true);
    const std::string good = fit_encode_block(id, 0, from.spectra, {0, 3, 0, 1}, 0);
    ASSERT_TRUE(fit_decode_block(good, a_job(), counts, cause)) << cause;
    struct {
        std::size_t at;
        int value;
    } const cases[] = {{24, -1},         {28, 0},  {28, 8}, {28, -4}, {28, 0x40000000}, {32, 1},
                       {32, 0x7fffffff}, {36, -1}, {36, 4}, {40, 4},  {40, -1}};
    for (const auto &c : cases)
        EXPECT_FALSE(fit_decode_block(with(good, c.at, c.value), a_job(), counts, cause))
            << c.at << ' ' << c.value;
    for (const char width :
         {'\1', '\3', '\5', '\xff'}) // of the first spectrum's first group, whose counts are zero
        EXPECT_FALSE(fit_decode_block(with(good, 48, width), a_job(), counts, cause)) << int{width};
    fit_job other = a_job();
    other.type = el_double;
    EXPECT_FALSE(fit_decode_block(good, other, counts, cause));
    EXPECT_GT(fit_block_bytes({nullptr, el_double, 8, 8, 8, 1 << 30, 1, 1}, {0, 0, 0, 0}, 0), fit_most_bytes);
}

TEST(fit_message, a_block_of_more_points_than_one_has_is_refused) {
    fit_job job = a_job();
    job.channels = 1;
    const std::vector<std::uint32_t> elements(fit_most_points + 1);
    for (const int points : {fit_most_points, fit_most_points + 1}) {
        const peak_spectra spectra = {
            reinterpret_cast<const std::byte *>(elements.data()), el_long, 4, 4, 4, 1, points, 1};
        const std::string bytes = fit_encode_block(id, 0, spectra, {0, points - 1, 0, 0}, 0);
        EXPECT_EQ(fit_decode_block(bytes, job, counts, cause).has_value(), points == fit_most_points);
    }
}

TEST(fit_message, job_numbers_are_16_digits) {
    EXPECT_EQ("0123456789abcdef", fit_id_text(id));
    EXPECT_EQ(id, fit_id_of("0123456789abcdef"));
    for (const char *bad :
         {"", "1", "0123456789abcdeg", "0123456789abcdef0", "-123456789abcdef", "0x23456789abcdef"})
        EXPECT_FALSE(fit_id_of(bad)) << bad;
}
