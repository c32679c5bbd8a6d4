// What the broker keeps, by our own account.
#include "stream/stock.h"

#include <gtest/gtest.h>

using namespace kestrel::stream;
using namespace std::chrono_literals;

namespace {

TEST(Stock, PayloadsGoBeforeRunsAndTheLastRunStays) {
    broker_stock stock;
    const auto now = broker_stock::clock::now();
    stock.add_run("old");
    stock.add_run("old"); // told twice
    stock.add_headers("old", 100);
    stock.add_run("new");
    stock.add_headers("new", 50);
    stock.add_headers("unknown", 1000);
    stock.add_payload("a", 1000, now + 10s);
    stock.add_payload("b", 1000, now + 20s);
    stock.add_payload("c", 1000, now + 30s);
    const std::size_t one = broker_cost(1000);
    EXPECT_EQ(stock.bytes(), 150 + 3 * one);
    stock.expire(now + 15s);
    EXPECT_EQ(stock.payloads(), 2U);
    stock.forget_payload("c");
    stock.forget_payload("no such key");
    EXPECT_EQ(stock.take_oldest_payload(), "b");
    EXPECT_EQ(stock.take_oldest_payload(), std::nullopt);
    EXPECT_EQ(stock.bytes(), 150U);
    EXPECT_EQ(stock.take_oldest_run(), "old");
    EXPECT_EQ(stock.take_oldest_run(), std::nullopt);
    EXPECT_EQ(stock.bytes(), 50U);
}

// Its allocator gives 16, 32, 48, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320 ... bytes.
TEST(Stock, CostsAreWhatTheAllocatorGives) {
    const std::size_t around = broker_cost(0) - 16;
    const struct {
        std::size_t bytes, given;
    } cases[] = {
        {0, 16},    {1, 32},        {48, 64},       {49, 80},       {112, 128},
        {113, 160}, {32752, 32768}, {32753, 40960}, {32768, 40960}, {1 << 20, (1 << 20) + (1 << 18)}};
    for (const auto &[bytes, given] : cases)
        EXPECT_EQ(broker_cost(bytes), given + around) << bytes;
}

} // namespace
