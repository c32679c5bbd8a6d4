// A text made in pieces by several threads is whole and in order, and ends where its taker ends it.
#include "unified/text_pieces.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <thread>

using namespace kestrel;

namespace {

struct collected {
    mutable std::string text;
    mutable int taken = 0;
    int fails_at = -1;
};

// Pieces of different lengths, every seventh slow to come.
std::size_t make(const void *, int piece, char *room) {
    if (piece % 7 == 0)
        std::this_thread::sleep_for(std::chrono::microseconds(300));
    const std::string text = std::to_string(piece) + std::string(static_cast<std::size_t>(piece % 5), '.');
    return text.copy(room, text.size());
}

int take(const void *user, const char *text, std::size_t length) {
    const auto &all = *static_cast<const collected *>(user);
    all.text.append(text, length);
    return all.taken++ == all.fails_at ? -1 : 0;
}

TEST(TextPieces, ComeWholeAndInOrder) {
    for (const int count : {0, 1, 2, 15, 16, 400}) {
        collected all;
        EXPECT_EQ(unified_make_text({count, 16, make, take, &all}), 0);
        std::string expected;
        for (int piece = 0; piece < count; ++piece)
            expected += std::to_string(piece) + std::string(static_cast<std::size_t>(piece % 5), '.');
        EXPECT_EQ(all.text, expected) << count;
    }
}

TEST(TextPieces, EndWithTheFirstThatIsNotTaken) {
    for (const int at : {0, 3, 200, 399}) {
        collected all;
        all.fails_at = at;
        EXPECT_EQ(unified_make_text({400, 16, make, take, &all}), -1);
        EXPECT_EQ(all.taken, at + 1);
    }
}

} // namespace
