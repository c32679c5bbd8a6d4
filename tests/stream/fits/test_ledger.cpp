// The book of a job's blocks: every point in one block, no block lost or counted twice, whatever happens to it.
#include "stream/fits/ledger.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>

using namespace kestrel::stream;

namespace {

constexpr int many = 1000; // workers

// Sends what is to be sent; the numbers.
std::vector<int> send_all(fit_ledger &ledger, int workers = many, std::size_t point_bytes = 4096) {
    std::vector<int> numbers;
    while (const auto number = ledger.next(workers)) {
        ledger.sent(*number, std::to_string(*number),
                    static_cast<std::size_t>(ledger.at(*number).box.points()) * point_bytes);
        numbers.push_back(*number);
    }
    return numbers;
}

int points_out(const fit_ledger &ledger) {
    int points = 0;
    for (const int number : ledger.in_state(block_state::sent))
        points += ledger.at(number).box.points();
    return points;
}

} // namespace

TEST(fit_ledger, every_point_is_in_one_block_however_long_fits_take) {
    struct {
        int q1, q2, ns, microseconds; // a point
    } const scans[] = {{0, 0, 1, 500},   {0, 99, 1, 500},   {3, 12, 7, 500},     {5, 1004, 2, 100},
                       {0, 2, 300, 900}, {0, 9, 40, 20000}, {0, 20, 3, 5000000}, {0, 4999, 3, 0}};
    for (const auto &scan : scans) {
        fit_ledger ledger(scan.q1, scan.q2, scan.ns, 4096);
        const int nq = scan.q2 - scan.q1 + 1;
        std::vector<int> seen(static_cast<std::size_t>(nq * scan.ns));
        while (!ledger.settled())
            for (const int number : send_all(ledger)) {
                const fit_box &box = ledger.at(number).box;
                ASSERT_TRUE(box.points() > 0 && box.q1 >= scan.q1 && box.q2 <= scan.q2 && box.s2 < scan.ns);
                for (int s = box.s1; s <= box.s2; ++s)
                    for (int q = box.q1; q <= box.q2; ++q)
                        ++seen[static_cast<std::size_t>(s * nq + q - scan.q1)];
                EXPECT_TRUE(ledger.finished(number, scan.microseconds * box.points()));
            }
        EXPECT_EQ(std::vector<int>(seen.size(), 1), seen) << nq << " x " << scan.ns;
        EXPECT_EQ(nq * scan.ns, ledger.points_done());
    }
}

TEST(fit_ledger, blocks_take_200_ms_once_a_time_is_known_and_4_MiB_at_most) {
    struct {
        int microseconds; // a point
        std::size_t bytes;
        int points;
    } const cases[] = {{1000, 4096, 200}, {50000, 4096, 4}, {900000, 4096, 1},
                       {100, 4096, 1024}, {1, 8, 4096},     {1000, 1 << 23, 1}};
    for (const auto &c : cases) {
        fit_ledger ledger(0, 999999, 1, c.bytes);
        const std::vector<int> first = send_all(ledger, 2, c.bytes);
        ASSERT_FALSE(first.empty());
        EXPECT_LE(ledger.at(first[0]).box.points(), fit_ledger::first_points);
        ledger.finished(first[0], c.microseconds * ledger.at(first[0]).box.points());
        const std::vector<int> then = send_all(ledger, 2, c.bytes);
        ASSERT_FALSE(then.empty());
        EXPECT_EQ(c.points, ledger.at(then[0]).box.points()) << c.microseconds;
    }
}

TEST(fit_ledger, blocks_that_pack_well_are_no_larger_than_a_worker_may_unpack) {
    constexpr std::size_t spectrum = 1 << 18, packed = 1 << 10;
    fit_ledger ledger(0, 999999, 1, spectrum);
    ledger.finished(send_all(ledger, 2, packed).front(), 1);
    const std::vector<int> then = send_all(ledger, 2, packed);
    ASSERT_FALSE(then.empty());
    EXPECT_EQ(fit_ledger::most_block_spectra / spectrum,
              static_cast<std::size_t>(ledger.at(then[0]).box.points()));
    EXPECT_LE(fit_ledger::most_block_spectra, fit_most_bytes);
}

TEST(fit_ledger, blocks_get_smaller_towards_the_end_but_not_tiny) {
    fit_ledger ledger(0, 19999, 1, 4096);
    for (int number = 0; !ledger.settled(); ++number) {
        send_all(ledger, 2, 400); // packed: less than it might have been
        ledger.finished(number, 200 * ledger.at(number).box.points());
    }
    int most = 0, last = 0;
    for (int number = 0; ledger.knows(number); ++number) {
        last = ledger.at(number).box.points();
        most = std::max(most, last);
    }
    EXPECT_EQ(1000, most) << "200 ms";
    EXPECT_LE(last, 100) << "20 ms";
}

TEST(fit_ledger, no_more_is_out_than_the_workers_and_the_broker_can_take) {
    fit_ledger ledger(0, 999999, 1, 4096);
    EXPECT_EQ(4U, send_all(ledger).size()); // nothing is known yet
    ledger.finished(0, 4000);
    EXPECT_EQ(5U + 0U, send_all(ledger, 0).size()); // 8 out: somebody may come
    EXPECT_EQ(4U, send_all(ledger, 2).size());
    send_all(ledger, 100000);
    const std::size_t out = static_cast<std::size_t>(points_out(ledger)) * 4096;
    EXPECT_GE(out, fit_ledger::most_bytes_out);
    EXPECT_LT(out, fit_ledger::most_bytes_out + fit_ledger::most_block_bytes);
}

TEST(fit_ledger, three_failures_give_a_block_up_and_a_late_result_is_taken_all_the_same) {
    fit_ledger ledger(0, 3, 1, 8);
    for (int i = 0; i < fit_ledger::most_failures; ++i) {
        ASSERT_EQ(std::vector<int>{0}, send_all(ledger));
        ledger.failed(0);
        ledger.failed(0); // told twice of one end
    }
    EXPECT_TRUE(send_all(ledger).empty());
    EXPECT_TRUE(ledger.settled());
    EXPECT_EQ(std::vector<int>{0}, ledger.in_state(block_state::given_up));
    EXPECT_TRUE(ledger.finished(0, 10));
    EXPECT_FALSE(ledger.finished(0, 10));
    EXPECT_TRUE(ledger.in_state(block_state::given_up).empty());
    EXPECT_EQ(4, ledger.points_done());
}

TEST(fit_ledger, a_broker_that_forgot_counts_as_nobodys_failure) {
    fit_ledger ledger(0, 3, 1, 8);
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(1U, send_all(ledger).size());
        ledger.all_again();
    }
    EXPECT_TRUE(ledger.finished(0, 10)); // of a worker who had it before
    EXPECT_TRUE(send_all(ledger).empty());
    EXPECT_TRUE(ledger.settled());
}

TEST(fit_ledger, patience_is_three_of_the_longest_blocks_but_a_second_at_least) {
    fit_ledger ledger(0, 999, 1, 8);
    EXPECT_EQ(std::chrono::seconds(1), ledger.patience());
    send_all(ledger);
    ledger.finished(0, 700000);
    ledger.finished(1, 600000);
    EXPECT_EQ(std::chrono::milliseconds(2100), ledger.patience());
}

TEST(fit_ledger, nothing_is_lost_or_counted_twice_whatever_happens) {
    std::mt19937 random(7);
    for (int round = 0; round < 50; ++round) {
        fit_ledger ledger(0, 59, 5, 4096);
        int counted = 0;
        for (int step = 0; !ledger.settled(); ++step) {
            ASSERT_LT(step, 100000);
            const std::vector<int> sent = ledger.in_state(block_state::sent);
            const auto any = [&] { return sent[random() % sent.size()]; };
            switch (sent.empty() ? 0 : random() % 8) {
            case 0:
            case 1:
                send_all(ledger, static_cast<int>(random() % 3));
                break;
            case 2:
                ledger.failed(any());
                break;
            case 3:
                ledger.all_again();
                break;
            default: {
                const int number =
                    random() % 4 == 0 && ledger.knows(0) ? 0 : any(); // now and then one that was done
                counted += ledger.finished(number, 30000) ? ledger.at(number).box.points() : 0;
            }
            }
        }
        int given_up = 0;
        for (const int number : ledger.in_state(block_state::given_up))
            given_up += ledger.at(number).box.points();
        EXPECT_EQ(300, counted + given_up);
        EXPECT_EQ(counted, ledger.points_done());
    }
}
