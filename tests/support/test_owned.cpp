// The lock that its owner takes without a locked operation, and the record that one thread writes: threads at once.
#include "support/owned_mutex.h"
#include "support/watched_record.h"

#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

TEST(owned_mutex, keeps_the_owner_and_others_apart_from_the_first_other_one_on) {
    constexpr int each = 50'000;
    owned_mutex first, second; // the owner is at work with one when others come to both
    int counts[2] = {};
    const auto add = [&] {
        for (int i = 0; i < each; ++i) {
            {
                const std::lock_guard guard(first);
                ++counts[0];
            }
            const std::lock_guard guard(second);
            ++counts[1];
        }
    };
    add(); // alone
    std::vector<std::jthread> others;
    for (int i = 0; i < 3; ++i)
        others.emplace_back(add);
    add();
    others.clear();
    EXPECT_EQ(counts[0], 5 * each);
    EXPECT_EQ(counts[1], 5 * each);
}

TEST(watched_record, is_read_whole_while_it_is_written) {
    struct record {
        std::array<std::uint64_t, 20> all_alike{};
    };
    watched_record<record> watched;
    std::atomic<bool> done = false;
    std::jthread writer([&] {
        record r;
        for (std::uint64_t i = 0; i < 300'000; ++i) {
            r.all_alike.fill(i);
            watched.write(r);
        }
        done = true;
    });
    std::uint64_t last = 0;
    while (!done) {
        const record r = watched.read();
        for (const std::uint64_t value : r.all_alike)
            ASSERT_EQ(value, r.all_alike[0]);
        ASSERT_GE(r.all_alike[0], last);
        last = r.all_alike[0];
    }
}

} // namespace
} // namespace kestrel
