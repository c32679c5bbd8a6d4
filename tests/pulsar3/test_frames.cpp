// The data link: what a packet's end says, runs of frames with everything that a network does to them, and the host's
// end of the link.
#include "pulsar3/lib/frames/receive_run.h"
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/mac.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

using namespace kestrel;

namespace {

constexpr std::uint32_t starts = 1U << 31, ends = 1U << 30, padded = 1U << 29;

std::string words(std::initializer_list<std::uint32_t> values) {
    std::string text;
    for (const std::uint32_t v : values)
        text.append(reinterpret_cast<const char *>(&v), sizeof v);
    return text;
}

packet_info walk(const std::string &packet, bool farm_mode = true) {
    return plr3_walk_packet(std::as_bytes(std::span(packet)), farm_mode);
}

std::string said;

void keep(int, std::string_view text) {
    said += text;
}

// A frame of the tests: word i of frame f is f << 16 | i.
std::string frame_words(std::uint32_t frame, std::uint32_t first, std::uint32_t count) {
    std::string text;
    for (std::uint32_t i = first; i < first + count; ++i)
        text += words({frame << 16 | i});
    return text;
}

std::string packet(std::uint32_t frame, std::uint32_t first, std::uint32_t count, std::uint32_t info) {
    return frame_words(frame, first, count) + words({frame, info});
}

// A run of 3 frames: two of 10 words in packets of 4, 4 and 2, the last of 5 words. Frame numbers begin at 7.
constexpr std::uint32_t first = 7;

std::vector<std::string> good_run() {
    std::vector<std::string> all;
    for (const std::uint32_t f : {first, first + 1}) {
        all.push_back(packet(f, 0, 4, starts | 0));
        all.push_back(packet(f, 4, 4, 1));
        all.push_back(packet(f, 8, 2, ends | 2));
    }
    all.push_back(packet(first + 2, 0, 4, starts | 0));
    all.push_back(packet(first + 2, 4, 1, ends | 1));
    return all;
}

class link : public ::testing::Test {
  protected:
    void SetUp() override {
        sockaddr_in here{};
        here.sin_family = AF_INET;
        here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof here;
        auto *address = reinterpret_cast<sockaddr *>(&here);
        ASSERT_EQ(::bind(card.get(), address, size), 0);
        ASSERT_EQ(::getsockname(card.get(), address, &size), 0);
        ASSERT_EQ(plr3_udp_init(host, "127.0.0.1", 0, "127.0.0.1", ntohs(here.sin_port)), 0)
            << plr3_get_error_message();
        ASSERT_EQ(::getsockname(host.socket.get(), address, &size), 0);
        ASSERT_EQ(::connect(card.get(), address, size), 0);
        host.timeout = 1;
        said.clear();
        plr3_message_hook = keep;
        run.shape = {std::as_writable_bytes(std::span(buffer)), 40, first, 1};
        run.debug = 1;
    }
    void TearDown() override { plr3_message_hook = nullptr; }

    void send(const std::vector<std::string> &packets) {
        for (const std::string &p : packets)
            ASSERT_EQ(::send(card.get(), p.data(), p.size(), 0), static_cast<ssize_t>(p.size()));
    }
    int receive() {
        buffer.fill(0xAAAAAAAA);
        return plr3_read_data_10g_receive(host, run, result);
    }
    void expect_whole_run() {
        const std::string expected =
            frame_words(first, 0, 10) + frame_words(first + 1, 0, 10) + frame_words(first + 2, 0, 5);
        EXPECT_EQ(std::memcmp(buffer.data(), expected.data(), expected.size()), 0);
        EXPECT_EQ(result.frames, 3);
        EXPECT_EQ(result.bytes, 100U);
    }

    unique_fd card{::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    UDPconnection host;
    std::array<std::uint32_t, 25> buffer;
    run_request run;
    run_result result;
};

} // namespace

TEST(trailer, says_frame_packet_and_bounds) {
    const packet_info p = walk(words({1, 2, 3, 0xFFFFFFFF, starts | ends | 0x0FFFFFFF}));
    EXPECT_EQ(p.state, packet_state::good);
    EXPECT_EQ(p.frame, 0xFFFFFFFFU);
    EXPECT_EQ(p.packet, 0x0FFFFFFFU);
    EXPECT_TRUE(p.starts && p.ends);
    EXPECT_EQ(p.payload, 12U);
    EXPECT_EQ(walk(words({5, 1U << 28})).packet, 0U);
    EXPECT_EQ(walk(words({5, 3})).payload, 0U);
}

TEST(trailer, of_what_is_no_packet) {
    for (const std::size_t size : {0U, 1U, 4U, 7U, 9U, 14U})
        EXPECT_EQ(walk(std::string(size, 'x')).state, packet_state::no_trailer) << size;
}

TEST(trailer, pads) {
    struct row {
        std::uint32_t pads;
        packet_state state;
        std::size_t payload;
    };
    for (const row &r :
         {row{1, packet_state::good, 8}, row{2, packet_state::good, 4}, row{0, packet_state::good, 12},
          row{3, packet_state::all_pads, 0}, row{0x7FFFFFFF, packet_state::all_pads, 0},
          row{0xFFFFFFFF, packet_state::negative_pads, 0}}) {
        const std::string p = words({1, 2, r.pads, 0, padded});
        EXPECT_EQ(walk(p).state, r.state) << r.pads;
        EXPECT_EQ(walk(p).payload, r.payload) << r.pads;
        EXPECT_EQ(walk(p, false).payload, 12U); // the card has no such feature
    }
    EXPECT_EQ(walk(words({0, padded})).state, packet_state::all_pads); // no word that could count them
}

TEST_F(link, a_run_comes_whole_with_a_shorter_last_frame) {
    send(good_run());
    EXPECT_EQ(receive(), 0) << plr3_get_error_message();
    expect_whole_run();
    EXPECT_EQ(
        said,
        "Received 100 of 100 bytes with 0 errors, in 8 packets in 3 frames, lost 0 packets and 0 frames\n");
    EXPECT_EQ(host.recvPackets, 8);
    EXPECT_EQ(host.recvBytes, 100U + 8 * 8);
}

TEST_F(link, each_disturbance_has_its_line_and_costs_its_own_frame) {
    struct row {
        const char *what;
        std::function<void(std::vector<std::string> &)> disturb;
        const char *line;
        std::vector<std::uint32_t> spoiled; // frames of the run
    };
    const auto change = [](std::size_t i, const std::string &to) {
        return [=](std::vector<std::string> &all) { all[i] = to; };
    };
    const auto lose = [](std::ptrdiff_t i) {
        return [=](std::vector<std::string> &all) { all.erase(all.begin() + i); };
    };
    const row rows[] = {
        {"start bit missing",
         change(3, packet(8, 0, 4, 0)),
         "First packet of expected_frame 8 does not have start of frame bit set, byte_read = 40\n",
         {1}},
        {"start bit within",
         change(1, packet(7, 4, 4, starts | 1)),
         "Unexpected start of frame at byte 16, frame=7, packet=1, expected 7, 1\n",
         {0}},
        {"packet lost",
         lose(1),
         "Unexpected frame/packet at byte 16, expected frame=7, packet=1, received =7, 2, previous 7, 0\n",
         {0}},
        {"last packet of a frame lost",
         lose(2),
         "Unexpected frame/packet at byte 32, expected frame=7, packet=2, received =8, 0, previous 7, 1\n",
         {0}},
        {"first packet of a frame lost",
         lose(3),
         "Unexpected frame/packet at byte 40, expected frame=8, packet=0, received =8, 1, previous 7, 2\n",
         {1}},
        {"frame lost",
         [](auto &all) { all.erase(all.begin() + 3, all.begin() + 6); },
         "Unexpected frame/packet at byte 40, expected frame=8, packet=0, received =9, 0, previous 7, 2\n",
         {1}},
        {"packets swapped",
         [](auto &all) { std::swap(all[3], all[4]); },
         "Unexpected frame/packet at byte 40, expected frame=8, packet=0, received =8, 1, previous 7, 2\n"
         "Unexpected frame/packet at byte 56, expected frame=8, packet=2, received =8, 0, previous 8, 1\n",
         {1}},
        {"packet repeated",
         [](auto &all) { all.insert(all.begin() + 4, all[3]); },
         "Unexpected frame/packet at byte 56, expected frame=8, packet=1, received =8, 0, previous 8, 0\n",
         {}},
        {"of another run",
         [](auto &all) { all.insert(all.begin() + 4, packet(100, 0, 4, starts)); },
         "Unexpected frame/packet at byte 56, expected frame=8, packet=1, received =100, 0, previous 8, 0\n",
         {}},
        {"end bit missing",
         change(2, packet(7, 8, 2, 2)),
         "Missing End of Frame at byte 40, frame=7, packet=2\n",
         {0}},
        {"end bit early",
         change(1, packet(7, 4, 4, ends | 1)),
         "Unexpected End of Frame at byte 32, frame=7, packet=1, bytes_this_frame=32, expected_bytes_this_frame=40\n"
         "Unexpected frame/packet at byte 40, expected frame=8, packet=0, received =7, 2, previous 7, 1\n",
         {0}},
        {"too much",
         change(2, packet(7, 8, 4, ends | 2)),
         "Unexpected End of Frame at byte 48, frame=7, packet=2, bytes_this_frame=48, expected_bytes_this_frame=40\n",
         {0}},
        {"no packet",
         [](auto &all) { all.insert(all.begin() + 1, "abc"); },
         "Packet of 3 bytes has no trailer\n",
         {}},
        {"too long a packet",
         [](auto &all) { all.insert(all.begin() + 1, std::string(20000, 'x')); },
         "Packet of 20000 bytes has no trailer\n",
         {}},
        {"negative pads",
         change(1, frame_words(7, 4, 3) + words({0xFFFFFFFE, 7, padded | 1})),
         "Negative pad words = -2 ???\n"
         "Unexpected End of Frame at byte 24, frame=7, packet=2, bytes_this_frame=24, expected_bytes_this_frame=40\n",
         {0}},
        {"all pads",
         change(1, frame_words(7, 4, 3) + words({4, 7, padded | 1})),
         "pad_words=4 consumes enire packet=24 bytes\n"
         "Unexpected End of Frame at byte 24, frame=7, packet=2, bytes_this_frame=24, expected_bytes_this_frame=40\n",
         {0}},
    };
    run.farm_mode = true;
    run.debug = 0;
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        said.clear();
        auto all = good_run();
        r.disturb(all);
        send(all);
        EXPECT_EQ(receive(), r.spoiled.empty() ? 0 : plr3_failed);
        EXPECT_EQ(said, r.line);
        EXPECT_GT(result.errors, 0);
        EXPECT_EQ(result.frames, 3 - static_cast<int>(r.spoiled.size()));
        for (std::uint32_t f = 0; f < 3; ++f) {
            const std::uint32_t count = f == 2 ? 5 : 10;
            const bool same =
                std::memcmp(&buffer[f * 10], frame_words(first + f, 0, count).data(), 4 * count) == 0;
            const bool spoiled = std::find(r.spoiled.begin(), r.spoiled.end(), f) != r.spoiled.end();
            EXPECT_TRUE(same || spoiled) << "frame " << f;
        }
    }
}

TEST_F(link, pads_are_removed) {
    auto all = good_run();
    all[2] = frame_words(first, 8, 2) + words({0, 2, first, padded | ends | 2});
    send(all);
    run.farm_mode = true;
    EXPECT_EQ(receive(), 0) << plr3_get_error_message();
    expect_whole_run();
}

TEST_F(link, lost_frames_are_asked_for_again) {
    auto all = good_run();
    all.erase(all.begin() + 7); // the end of the run
    all.erase(all.begin() + 1); // and a packet of the first frame
    send(all);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> asked;
    run.resend = [&](std::uint32_t from, std::uint32_t count) {
        asked.emplace_back(from, count);
        const auto again = good_run();
        for (std::size_t i = 0; i < again.size(); ++i) {
            const auto frame = first + static_cast<std::uint32_t>(i / 3);
            const bool lost_again = asked.size() == 1 && i == 0;
            if (frame >= from && frame < from + count && !lost_again)
                send({again[i]});
        }
        return 0;
    };
    EXPECT_EQ(receive(), 0) << plr3_get_error_message();
    expect_whole_run();
    EXPECT_EQ(asked, (std::vector<std::pair<std::uint32_t, std::uint32_t>>{{7, 1}, {9, 1}, {7, 1}}));
    EXPECT_NE(said.find("Trying to resend frames 0 for 1 => 40 bytes\n"), said.npos);
    EXPECT_NE(said.find("Trying to resend frames 2 for 1 => 20 bytes\n"), said.npos);
    EXPECT_EQ(host.recvLoss, result.lost_packets);
}

TEST_F(link, a_card_that_cannot_send_again_ends_the_run_with_its_text) {
    run.resend = [](std::uint32_t, std::uint32_t) { return plr3_fail(-5, "refused"); };
    EXPECT_EQ(receive(), -5);
    EXPECT_STREQ(plr3_get_error_message(), "refused");
}

TEST_F(link, silence_ends_a_run_after_the_time_out_and_an_interrupt_before_it) {
    host.timeout = 3;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(receive(), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "plr3_read_data_10g_receive: 0 of 3 frames are whole");
    EXPECT_EQ(result.lost_frames, 3);
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(2900));
    EXPECT_LE(took, std::chrono::milliseconds(5900));
    host.timeout = 30;
    plr3_interrupt_hook = [] { return true; };
    EXPECT_EQ(receive(), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "plr3_read_data_10g_receive: Interrupted");
    plr3_interrupt_hook = nullptr;
}

TEST_F(link, that_the_card_was_not_there_is_no_error) {
    ::send(host.socket.get(), "x", 1, 0);
    card.reset(); // what we send next is refused
    ::send(host.socket.get(), "x", 1, 0);
    ::send(host.socket.get(), "x", 1, 0);
    host.timeout = 0;
    EXPECT_EQ(receive(), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "plr3_read_data_10g_receive: 0 of 3 frames are whole");
}

TEST_F(link, a_socket_that_fails_ends_the_run) {
    host.socket.reset();
    EXPECT_EQ(receive(), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "Read socket error (UDP).");
    EXPECT_EQ(said.substr(0, said.find('\n')), "Read returns error -1, errno=9");
}

// Whether there is a packet that was not read yet.
bool waiting(const UDPconnection &host) {
    int bytes = 0;
    return ::ioctl(host.socket.get(), FIONREAD, &bytes) == 0 && bytes > 0;
}

TEST_F(link, full_packets_in_a_large_run) {
    constexpr std::uint32_t frame_size = 5000, packet_words = 8992 / 4, frames = 40;
    std::vector<std::uint32_t> large(frames * frame_size - 1234);
    run.shape.buffer = std::as_writable_bytes(std::span(large));
    run.shape.frame_bytes = 4 * frame_size;
    std::atomic<bool> over = false;
    std::thread sending([&] {
        for (std::uint32_t f = 0; f < frames; ++f) {
            const std::uint32_t size = f + 1 == frames ? frame_size - 1234 : frame_size;
            for (std::uint32_t at = 0, n = 0; at < size; at += packet_words, ++n) {
                const std::uint32_t count = std::min(packet_words, size - at);
                send({packet(first + f, at, count,
                             (n == 0 ? starts : 0) | (at + count == size ? ends : 0) | n)});
            }
            while (!over && waiting(host)) // the socket holds a few of them only
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(plr3_read_data_10g_receive(host, run, result), 0) << plr3_get_error_message() << said;
    over = true;
    sending.join();
    for (std::uint32_t i = 0; i < large.size(); ++i)
        ASSERT_EQ(large[i], (first + i / frame_size) << 16 | i % frame_size) << i;
}

TEST(udp, opening_says_what_is_wrong) {
    UDPconnection c;
    EXPECT_EQ(plr3_udp_init(c, "no such name", 30124, "127.0.0.1", 30124), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "Unable to resolve server name no such name!");
    EXPECT_EQ(plr3_udp_init(c, "192.0.2.1", 0, "127.0.0.1", 1), plr3_failed); // no address of ours
    EXPECT_STREQ(plr3_get_error_message(), "Binding client udp socket (errno 99)");
    EXPECT_EQ(plr3_udp_init(c, "127.0.0.1", 0, "255.255.255.255", 1), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "Error connecting udp socket (errno 13)");
    c.recvBuf = 100;
    EXPECT_EQ(plr3_udp_init(c, "127.0.0.1", 0, "127.0.0.1", 1), plr3_failed);
    EXPECT_STREQ(plr3_get_error_message(), "Error UDP socket RCVBUF size 0x480 is too small");
    EXPECT_EQ(plr3_udp_init(c, "127.0.0.1", 70000, "127.0.0.1", 1), plr3_failed);
    EXPECT_FALSE(c.socket);
    c.recvBuf = 0;
    EXPECT_EQ(plr3_udp_init(c, "localhost", 0, "127.0.0.1", 1), 0) << plr3_get_error_message();
    EXPECT_EQ(c.packetSize, 9000);
    EXPECT_EQ(c.dataSize, 9000);
    EXPECT_EQ(c.timeout, 30);
    EXPECT_GE(c.recvBuf, 9000);
}

TEST(mac, of_the_neighbour_table) {
    const char *const table =
        "IP address       HW type     Flags       HW address            Mask     Device\n"
        "192.168.0.73     0x1         0x2         02:1A:ff:00:10:9c     *        eth0\n"
        "192.168.0.7      0x1         0x2         02:00:00:00:00:07     *        eth0";
    EXPECT_EQ(neighbour_mac(table, "192.168.0.73"), (mac_address{0x02, 0x1A, 0xFF, 0x00, 0x10, 0x9C}));
    EXPECT_EQ(neighbour_mac(table, "192.168.0.7"), (mac_address{2, 0, 0, 0, 0, 7}));
    EXPECT_EQ(neighbour_mac(table, "192.168.0.8"), mac_address{});
    EXPECT_EQ(neighbour_mac("", "192.168.0.8"), mac_address{});
    in_addr loop{htonl(INADDR_LOOPBACK)};
    EXPECT_EQ(plr3_host_mac(loop), mac_address{});
}
