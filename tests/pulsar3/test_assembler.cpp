// Frames put together from packets: which are whole, what is missing, and that nothing wrong stands in a whole one.
// Packets are written as frame.packet; frames have three packets, or one.
#include "pulsar3/lib/frames/frame_assembler.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <string>

namespace kestrel {
namespace {

constexpr std::uint32_t start_bit = 1U << 31, end_bit = 1U << 30, pad_bit = 1U << 29;

struct fixture {
    fixture(std::size_t frame_words, std::size_t frames, bool circular = false, bool farm_mode = false)
        : buffer(frame_words * frames, 0xAAAAAAAA), status(frames, 9), missing(frames, 9) {
        frame_area area;
        area.buffer = buffer;
        area.frame_words = frame_words;
        area.status = status.data();
        area.missing = missing.data();
        area.pitch = 1;
        area.circular = circular;
        area.farm_mode = farm_mode;
        assembler.set_area(area);
        assembler.start();
    }

    static std::uint32_t word(std::uint64_t frame, std::size_t index) {
        return static_cast<std::uint32_t>(frame * 0x9E3779B1U + index * 0x85EBCA6BU + 1);
    }

    // A packet of the frame `as`, numbered `frame`.
    std::vector<std::byte> packet(std::uint32_t frame, std::uint32_t number, std::uint32_t as) const {
        const std::size_t words = assembler.area().frame_words, each = frame_packet_payload / 4;
        const std::size_t first = number * each, end = std::min(words, first + each);
        std::vector<std::uint32_t> out;
        for (std::size_t i = first; i < end; ++i)
            out.push_back(word(as, i));
        out.push_back(frame);
        out.push_back(number | (number == 0 ? start_bit : 0) | (end == words ? end_bit : 0));
        std::vector<std::byte> bytes(out.size() * 4);
        std::memcpy(bytes.data(), out.data(), bytes.size());
        return bytes;
    }

    // "0.0 0.1!2 ..." : the packet 0.1 of frame 2, wrongly numbered.
    void send(const std::string &packets) {
        std::istringstream in(packets);
        for (std::string one; in >> one;) {
            unsigned frame = 0, number = 0, as = 0;
            const int n = std::sscanf(one.c_str(), "%u.%u!%u", &frame, &number, &as);
            assembler.take(packet(frame, number, n == 3 ? as : frame));
        }
    }

    // A letter a frame: W(hole), i(ncomplete), m(issing), . (not yet); whole ones have their own words, others none.
    std::string frames() const {
        std::string text;
        const std::size_t words = assembler.area().frame_words;
        for (std::size_t f = 0; f < status.size(); ++f) {
            const bool all = missing[f] == assembler.packets_of_frame();
            text += status[f] == frame_whole ? 'W' : status[f] == frame_incomplete ? (all ? 'm' : 'i') : '.';
            for (std::size_t i = 0; i < words && status[f] != frame_not_yet; ++i) {
                const std::uint32_t expected = status[f] == frame_whole ? word(f, i) : 0;
                if (buffer[f * words + i] != expected)
                    return text + "!";
            }
        }
        return text;
    }

    std::string counts() const {
        const frame_counts &c = assembler.counts;
        std::ostringstream out;
        out << c.whole << '/' << c.incomplete << '/' << c.missing << " late " << c.late << " repeated "
            << c.repeated << " malformed " << c.malformed;
        return out.str();
    }

    std::vector<std::uint32_t> buffer, status, missing;
    frame_assembler assembler;
};

struct sequence {
    const char *name;
    const char *packets;
    unsigned sent;
    const char *frames;
    const char *counts;
};

class ThreePackets : public testing::TestWithParam<sequence> {};

TEST_P(ThreePackets, AreAccountedFor) {
    fixture f(6000, 4);
    f.send(GetParam().packets);
    f.assembler.finish(GetParam().sent);
    EXPECT_EQ(f.frames(), GetParam().frames);
    EXPECT_EQ(f.counts(), GetParam().counts);
    const frame_counts &c = f.assembler.counts;
    EXPECT_EQ(c.whole + c.incomplete + c.missing, GetParam().sent);
    EXPECT_FALSE(f.assembler.is_under_way());
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, ThreePackets,
    testing::Values(
        sequence{"in_order", "0.0 0.1 0.2 1.0 1.1 1.2", 2, "WW..", "2/0/0 late 0 repeated 0 malformed 0"},
        sequence{"none", "", 3, "mmm.", "0/0/3 late 0 repeated 0 malformed 0"},
        sequence{"one_lost", "0.0 0.2 1.0 1.1 1.2", 2, "iW..", "1/1/0 late 0 repeated 0 malformed 0"},
        sequence{"first_lost", "0.1 0.2 1.0 1.1 1.2", 2, "iW..", "1/1/0 late 0 repeated 0 malformed 0"},
        sequence{"tail_lost", "0.0 0.1 0.2 1.0 1.1", 2, "Wi..", "1/1/0 late 0 repeated 0 malformed 0"},
        sequence{"last_and_first_lost", "0.0 0.1 1.1 1.2 2.0 2.1 2.2", 3, "iiW.",
                 "1/2/0 late 0 repeated 0 malformed 0"},
        sequence{"frame_lost", "0.0 0.1 0.2 2.0 2.1 2.2", 3, "WmW.", "2/0/1 late 0 repeated 0 malformed 0"},
        sequence{"begin_lost", "2.1 2.2 3.0 3.1 3.2", 4, "mmiW", "1/1/2 late 0 repeated 0 malformed 0"},
        sequence{"end_lost", "0.0 0.1 0.2", 3, "Wmm.", "1/0/2 late 0 repeated 0 malformed 0"},
        sequence{"only_its_first_came_last", "0.0 0.1 0.2 2.0", 3, "Wmi.",
                 "1/1/1 late 0 repeated 0 malformed 0"},
        sequence{"repeated", "0.0 0.0 0.1 0.2 0.2 1.0 1.1 1.1 1.2", 2, "WW..",
                 "2/0/0 late 0 repeated 3 malformed 0"},
        sequence{"order", "0.2 0.0 0.1 1.1 1.0 1.2", 2, "WW..", "2/0/0 late 0 repeated 0 malformed 0"},
        sequence{"order_across", "0.0 0.1 1.0 0.2 1.1 1.2", 2, "iW..", "1/1/0 late 1 repeated 0 malformed 0"},
        sequence{"frames_swapped", "1.0 1.1 1.2 0.0 0.1 0.2 2.0 2.1 2.2", 3, "mWW.",
                 "2/0/1 late 3 repeated 0 malformed 0"},
        sequence{"wrong_frame_first", "1.0!0 0.1 0.2 1.0 1.1 1.2", 2, "iW..",
                 "1/1/0 late 0 repeated 0 malformed 1"},
        sequence{"wrong_frame_middle", "0.0 1.1!0 0.2 1.0 1.1 1.2", 2, "iW..",
                 "1/1/0 late 0 repeated 0 malformed 1"},
        sequence{"wrong_frame_last", "0.0 0.1 1.2!0 1.0 1.1 1.2", 2, "iW..",
                 "1/1/0 late 0 repeated 0 malformed 1"},
        sequence{"wrong_frame_and_the_right_one_lost", "1.0!0 0.1 0.2 1.1 1.2 2.0 2.1 2.2", 3, "iiW.",
                 "1/2/0 late 0 repeated 0 malformed 1"},
        sequence{"far_frame", "0.0 99.1!0 0.2 1.0 1.1 1.2", 2, "iW..", "1/1/0 late 0 repeated 0 malformed 1"},
        sequence{"far_frame_at_the_end", "0.0 0.1 0.2 99.0!1", 2, "Wm..",
                 "1/0/1 late 0 repeated 0 malformed 1"},
        sequence{"old_frame", "0.0 0.1 0.2 0.0!1 1.1 1.2", 2, "ii..", "0/2/0 late 0 repeated 1 malformed 0"},
        sequence{"wrong_packet", "0.0 0.0!1 0.1 0.2 1.0 1.1 1.2", 2, "iW..",
                 "1/1/0 late 0 repeated 1 malformed 0"},
        sequence{"no_such_packet", "0.0 0.3 0.1 0.2", 1, "W...", "1/0/0 late 0 repeated 0 malformed 1"},
        sequence{"a_whole_frame_wrong", "1.0!0 1.1!0 1.2!0 1.0 1.1 1.2 2.0 2.1 2.2", 3, "miW.",
                 "1/1/1 late 2 repeated 1 malformed 0"},
        sequence{"numbers_start_anew", "0.0 0.1 0.2 1.0 1.1 1.2 2.0 0.0 0.1 0.2", 3, "WWi.",
                 "2/1/0 late 0 repeated 3 malformed 0"},
        sequence{"past_the_buffer", "3.0 3.1 3.2 4.0 4.1 4.2", 5, "mmmW",
                 "2/0/3 late 0 repeated 0 malformed 0"}),
    [](const auto &info) { return info.param.name; });

class OnePacket : public testing::TestWithParam<sequence> {};

TEST_P(OnePacket, IsAccountedFor) {
    fixture f(1024, 4);
    f.send(GetParam().packets);
    f.assembler.finish(GetParam().sent);
    EXPECT_EQ(f.frames(), GetParam().frames);
    EXPECT_EQ(f.counts(), GetParam().counts);
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, OnePacket,
    testing::Values(sequence{"in_order", "0.0 1.0 2.0", 3, "WWW.", "3/0/0 late 0 repeated 0 malformed 0"},
                    sequence{"lost", "0.0 2.0 3.0", 4, "WmWW", "3/0/1 late 0 repeated 0 malformed 0"},
                    sequence{"swapped", "1.0 0.0 2.0 3.0", 4, "WWWW", "4/0/0 late 0 repeated 0 malformed 0"},
                    sequence{"wrong_number", "1.0!0 1.0 2.0", 3, "mWW.",
                             "2/0/1 late 0 repeated 0 malformed 1"},
                    sequence{"repeated", "0.0 0.0 1.0", 2, "WW..", "2/0/0 late 0 repeated 1 malformed 0"}),
    [](const auto &info) { return info.param.name; });

// Whatever is lost, repeated and swapped: the account adds up and nothing wrong is called whole.
TEST(Assembler, RandomFaultsAddUp) {
    std::mt19937 random(7);
    for (int round = 0; round < 400; ++round) {
        fixture f(6000, 8);
        std::vector<std::pair<unsigned, unsigned>> packets;
        for (unsigned frame = 0; frame < 8; ++frame)
            for (unsigned number = 0; number < 3; ++number)
                packets.emplace_back(frame, number);
        for (int fault = static_cast<int>(random() % 6); fault > 0; --fault) {
            const std::size_t at = random() % packets.size();
            const auto place = packets.begin() + static_cast<std::ptrdiff_t>(at);
            switch (random() % 3) {
            case 0:
                packets.erase(place);
                break;
            case 1:
                packets.insert(place, packets[random() % packets.size()]);
                break;
            default:
                std::swap(*place, packets[random() % packets.size()]);
            }
        }
        for (const auto &[frame, number] : packets)
            f.assembler.take(f.packet(frame, number, frame));
        f.assembler.finish(8);
        const frame_counts &c = f.assembler.counts;
        ASSERT_EQ(c.whole + c.incomplete + c.missing, 8U) << round;
        ASSERT_EQ(f.frames().find('!'), std::string::npos) << round << ' ' << f.frames();
        ASSERT_EQ(f.frames().find('.'), std::string::npos) << round << ' ' << f.frames();
    }
}

TEST(Assembler, PadsAreLeftOut) {
    for (const bool farm_mode : {true, false}) {
        fixture f(1024, 2, false, farm_mode);
        std::vector<std::byte> packet = f.packet(0, 0, 0);
        const std::uint32_t pads[] = {77, 2};
        packet.insert(packet.end() - 8, reinterpret_cast<const std::byte *>(pads),
                      reinterpret_cast<const std::byte *>(pads + 2));
        packet.back() = packet.back() | static_cast<std::byte>(pad_bit >> 24);
        f.assembler.take(packet);
        f.assembler.finish(1);
        EXPECT_EQ(f.frames(), farm_mode ? "W." : "m.");
    }
}

TEST(Assembler, CircularBufferTellsWhatWasOverwritten) {
    fixture f(1024, 4, true);
    f.send("0.0 1.0 2.0 3.0");
    f.assembler.acknowledged = 2; // frames 0 and 1 have been read
    f.send("4.0 5.0");
    EXPECT_EQ(f.assembler.overruns, 0U);
    f.send("6.0 7.0");
    EXPECT_EQ(f.assembler.overruns, 2U);
    EXPECT_EQ(f.assembler.first_overrun, 6);
    EXPECT_EQ(f.buffer[0], fixture::word(4, 0));
    f.send("20.0 21.0"); // a gap longer than the buffer
    f.assembler.finish(22);
    EXPECT_EQ(f.status,
              (std::vector<std::uint32_t>{frame_whole, frame_whole, frame_incomplete, frame_incomplete}));
    EXPECT_EQ(f.counts(), "10/0/12 late 0 repeated 0 malformed 0");
}

TEST(Assembler, NumbersMayWrap) {
    fixture f(1024, 4, true);
    f.send("2147483647.0 2147483648.0 4294967295.0 0.0 1.0 2.0");
    EXPECT_EQ(f.counts(), "6/0/4294967293 late 0 repeated 0 malformed 0");
}

} // namespace
} // namespace kestrel
