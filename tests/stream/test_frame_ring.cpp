// The account of frames on their way to the broker.
#include "stream/frame_ring.h"

#include <gtest/gtest.h>
#include <random>

using namespace kestrel::stream;

namespace {

std::shared_ptr<const frame_contents> contents(std::int64_t time, std::size_t bytes) {
    auto c = std::make_shared<frame_contents>();
    c->time_us = time;
    c->payload.resize(bytes);
    return c;
}

TEST(FrameRing, GivesFramesInOrderAndCountsThem) {
    frame_ring ring(100);
    const auto lane = ring.add_lane();
    for (int i = 0; i < 3; ++i)
        ring.acquire(lane, contents(i, 10));
    EXPECT_EQ(ring.next(lane, 2)->frame, 2U);
    EXPECT_FALSE(ring.next(lane, 3));
    ring.told(lane, false);
    ring.told(lane, true);
    EXPECT_EQ(ring.next(lane, 0)->frame, 2U);
    EXPECT_EQ(ring.account(lane).sent, 1U);
    EXPECT_EQ(ring.account(lane).lost, 1U);
    EXPECT_EQ(ring.account(lane).waiting(), 1U);
    EXPECT_EQ(ring.bytes(), 10U);
}

TEST(FrameRing, DropsTheOldestPayloadsOfAnyLane) {
    frame_ring ring(30);
    const auto first = ring.add_lane(), second = ring.add_lane();
    ring.acquire(second, contents(1, 10));
    ring.acquire(first, contents(2, 10));
    ring.acquire(second, contents(3, 10));
    ring.acquire(first, contents(4, 20));
    EXPECT_EQ(ring.bytes(), 30U);
    EXPECT_FALSE(ring.next(second, 0)->contents);
    EXPECT_FALSE(ring.next(first, 0)->contents);
    EXPECT_TRUE(ring.next(second, 1)->contents);
    EXPECT_TRUE(ring.next(first, 1)->contents);
}

TEST(FrameRing, AFrameLargerThanTheRingIsTold) {
    frame_ring ring(10);
    const auto lane = ring.add_lane();
    ring.acquire(lane, contents(1, 11));
    ASSERT_TRUE(ring.next(lane, 0));
    EXPECT_FALSE(ring.next(lane, 0)->contents);
    EXPECT_EQ(ring.bytes(), 0U);
}

TEST(FrameRing, GoesOnBehindWhatTheBrokerKnows) {
    frame_ring ring(10);
    const auto lane = ring.add_lane({7, 5, 2});
    EXPECT_FALSE(ring.next(lane, 0));
    ring.acquire(lane, contents(1, 1));
    EXPECT_EQ(ring.next(lane, 0)->frame, 7U);
}

// Whatever comes in whatever order: every frame is told once, in order, and the bytes are those of what waits.
TEST(FrameRing, TheSumHoldsAtEveryStep) {
    std::mt19937 random(1);
    frame_ring ring(200);
    std::vector<frame_ring::lane_number> lanes = {ring.add_lane(), ring.add_lane(), ring.add_lane()};
    std::vector<std::uint64_t> acquired(3), told(3);
    for (int step = 0; step < 20000; ++step) {
        const std::size_t i = random() % 3;
        if (random() % 100 < (step / 1000 % 2 ? 70U : 30U)) {
            ring.acquire(lanes[i], contents(step, random() % 60));
            ++acquired[i];
        } else if (const auto next = ring.next(lanes[i], 0)) {
            ASSERT_EQ(next->frame, told[i]++);
            ring.told(lanes[i], !next->contents);
        }
        std::size_t bytes = 0;
        for (std::uint64_t ahead = 0;; ++ahead) {
            const auto next = ring.next(lanes[i], ahead);
            if (!next) {
                ASSERT_EQ(ahead, acquired[i] - told[i]);
                break;
            }
            bytes += next->contents ? next->contents->payload.size() : 0;
        }
        const frame_account &a = ring.account(lanes[i]);
        ASSERT_EQ(a.acquired, acquired[i]);
        ASSERT_EQ(a.acquired, a.sent + a.lost + a.waiting());
        ASSERT_LE(bytes, ring.bytes());
        ASSERT_LE(ring.bytes(), 200U);
    }
    for (const auto lane : lanes)
        ring.remove_lane(lane);
    EXPECT_EQ(ring.bytes(), 0U);
}

} // namespace
