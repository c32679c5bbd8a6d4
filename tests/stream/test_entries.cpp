// What is written to the broker, and what is believed of it.
#include "stream/entries.h"
#include "support/crc32c.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>

using namespace kestrel;
using namespace kestrel::stream;

namespace {

TEST(Entries, IdsAreFramesPlusOne) {
    EXPECT_EQ(entry_id(0), "1-0");
    EXPECT_EQ(frame_of_entry("1-0"), 0U);
    EXPECT_EQ(frame_of_entry(entry_id(1ULL << 40)), 1ULL << 40);
    for (const char *bad : {"", "0-0", "1", "1-1", "-0", "x-0", "-1-0", "99999999999999999999999-0"})
        EXPECT_EQ(frame_of_entry(bad), std::nullopt) << bad;
}

TEST(Entries, RunsAreNamedByTheirTime) {
    EXPECT_EQ(run_id_of(0), "19700101T000000.000000Z");
    EXPECT_EQ(run_id_of(1795331204000042), "20261122T070644.000042Z");
}

TEST(Entries, AShapeThatNoCardHasIsNone) {
    const card_shape card{3, 2, 4, 1, 4096, 100, 6};
    EXPECT_EQ(shape_of_text(3, shape_text(card)), card);
    for (const char *bad : {"", "2", "2,1,4096,100,4", "2,1,4096,100,4,6,7", "0,1,4096,100,4,6",
                            "5,1,4096,100,4,6", "2,1,-1,100,4,6", "2,1,4096,100,4,6x", "2,1,4096,100,4,",
                            "1,268435456,268435456,1,1,0", "1,1,268435456,268435456,1,0", "1,1,1,1,1025,0",
                            "18446744073709551615,1,1,1,1,0", "1,17,1,252645136,1,0"}) // 16 to an int
        EXPECT_EQ(shape_of_text(3, bad), std::nullopt) << bad;
}

TEST(Entries, DeadTimeFactorsHaveTheirEdges) {
    const std::uint32_t counted[scalers_a_channel] = {8000000, 0, 0, 50000, 40000, 1, 1, 0, 0};
    const double clock = 1.25e-8;
    EXPECT_EQ(dead_time_factor(counted, {.omitted = true}, clock), 0);
    EXPECT_EQ(dead_time_factor(counted, {}, clock), 1);
    EXPECT_GT(dead_time_factor(counted, {.all_event = 4e-7, .in_window = 3e-7}, clock), 1.2);
    const std::uint32_t dead[scalers_a_channel] = {100, 100, 0, 1, 0, 0, 0, 0, 0};
    EXPECT_EQ(dead_time_factor(dead, {.all_event = 4e-7, .in_window = 3e-7}, clock), 1);
}

TEST(Crc32c, IsTheOneOfTheTables) {
    // RFC 3720, B.4
    std::vector<std::byte> bytes(32);
    EXPECT_EQ(crc32c(bytes), 0x8A9136AAU);
    std::ranges::fill(bytes, std::byte{0xFF});
    EXPECT_EQ(crc32c(bytes), 0x62A8AB43U);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::byte>(i);
    EXPECT_EQ(crc32c(bytes), 0x46DD794EU);
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        const auto part = std::span(bytes).first(size), rest = std::span(bytes).subspan(size);
        EXPECT_EQ(crc32c(part), crc32c_by_table(part)) << size;
        EXPECT_EQ(crc32c(rest, crc32c(part)), crc32c(bytes)) << size;
        EXPECT_EQ(crc32c_by_table(rest, crc32c_by_table(part)), crc32c(bytes)) << size;
    }
}

TEST(BrokerSite, TextsAreTakenOrRefused) {
    const struct {
        const char *text, *shown; // null: refused
    } cases[] = {{"127.0.0.1:7000", "127.0.0.1:7000#kestrel"},
                 {"beam1", "beam1:6379#kestrel"},
                 {"unix:/run/redis.sock#i20", "unix:/run/redis.sock#i20"},
                 {"", nullptr},
                 {":7000", nullptr},
                 {"h:0", nullptr},
                 {"h:65536", nullptr},
                 {"h:70x", nullptr},
                 {"[::1]:7000", "[::1]:7000#kestrel"},
                 {"[::1]", "[::1]:6379#kestrel"},
                 {"[::1", nullptr},
                 {"[::1]7000", nullptr},
                 {"::1", nullptr},
                 {"unix:relative", nullptr},
                 {"user:secret@h:7000", nullptr},
                 {"h:7000#", nullptr},
                 {"h:7000#a b", nullptr},
                 {"h:7000#*", nullptr}};
    for (const auto &[text, shown] : cases) {
        std::string cause;
        const auto site = broker_site_of(text, cause);
        EXPECT_EQ(site ? site->text() : "", shown ? shown : "") << text;
        EXPECT_EQ(cause.empty(), shown != nullptr) << text;
    }
}

TEST(BrokerSite, PasswordsComeFromAFileAndAreNeverShown) {
    const std::string name = testing::TempDir() + "broker_auth";
    const struct {
        const char *line, *user, *password; // null: refused
    } cases[] = {{"publisher:se:cret\nmore\n", "publisher", "se:cret"},
                 {"secret", "", "secret"},
                 {"user:\n", nullptr, nullptr},
                 {"", nullptr, nullptr}};
    for (const auto &[line, user, password] : cases) {
        std::ofstream(name) << line;
        ::setenv("KESTREL_BROKER_AUTH", name.c_str(), 1);
        std::string cause;
        const auto site = broker_site_of("h:7000", cause);
        ::unsetenv("KESTREL_BROKER_AUTH");
        ASSERT_EQ(site.has_value(), user != nullptr) << line;
        if (site) {
            EXPECT_EQ(site->user, user);
            EXPECT_EQ(site->password, password);
            EXPECT_EQ(site->text().find("ret"), std::string::npos);
        }
    }
    std::remove(name.c_str());
}

TEST(BrokerBackOff, WaitsLongerAndLongerUntilItWorks) {
    broker_back_off back_off;
    auto now = broker_back_off::clock::now();
    EXPECT_TRUE(back_off.may_try(now));
    for (const int wait : {50, 100, 200, 400, 800, 1600, 2000, 2000}) {
        back_off.failed(now);
        EXPECT_FALSE(back_off.may_try(now + std::chrono::milliseconds(wait - 1)));
        now += std::chrono::milliseconds(wait);
        EXPECT_TRUE(back_off.may_try(now));
    }
    back_off.worked();
    EXPECT_TRUE(back_off.may_try(now));
}

} // namespace
