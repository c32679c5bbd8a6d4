// What a card and its network do wrong: each fault fails one access with its text, the next one is right, and no
// descriptor is lost.
#include "pulsar3/lib/wire/error.h"
#include "pulsar3/lib/wire/fem.h"
#include "tests/pulsar3/wire_peer.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace kestrel;
using namespace wire_test;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

using handle = std::unique_ptr<FemHandle>;

handle connect(const peer &card, int generation) {
    return generation == 1 ? pulsar3FemInitialise("127.0.0.1", card.port(), 0)
                           : pulsar3FemInitialise("127.0.0.1", 0, card.port());
}

int write_two(FemHandle &h) {
    const std::array<std::uint32_t, 2> values{1, 2};
    return pulsar3FemSetIntArray(h, 0, 0, 4, values);
}
int read_two(FemHandle &h) {
    std::array<std::uint32_t, 2> values{};
    return pulsar3FemGetIntArray(h, 0, 0, 4, values);
}
int modify(FemHandle &h) {
    std::uint32_t now = 0;
    return pulsar3FemRMW(h, 0, 0, 4, 1, 2, now);
}
int message(FemHandle &h) {
    const std::array<std::uint32_t, 1> mask{1};
    return pulsar3FemPersonalityWrite(h, 4, mask);
}
int status_of_streams(FemHandle &h) {
    const std::array<std::uint32_t, 1> mask{1};
    std::array<std::uint32_t, 2> values{};
    return pulsar3FemPersonalityRead(h, 13, mask, values);
}
int write_all_channels(FemHandle &h) {
    const std::array<std::uint32_t, 1> value{7};
    return pulsar3FemSetIntChans(h, 0, 16, 0, 4, value);
}

// A right answer with these bytes in the place of its own, then cut.
reply altered(int generation, const std::string &request, std::size_t at, const char *with,
              std::size_t length) {
    reply r = peer::good(generation, request);
    const std::string put = bytes(with);
    r.bytes.replace(at, put.size(), put);
    r.bytes.resize(std::min(length, r.bytes.size()));
    return r;
}

struct fault {
    const char *what;
    int generation;
    int (*call)(FemHandle &);
    std::size_t at; // in the answer
    const char *with;
    std::size_t length; // of what is sent before the card closes or falls silent
    bool close;
    int status;
    const char *text;
    int connections; // after the next access
};

constexpr std::size_t whole = 100000;
const char *const shutdown_text =
    "responseTransaction: Reading protocol header response from server detected shutdown of connection";

const fault faults[] = {
    {"refused write", 1, write_two, 7, "42 A0000010 00000004 00000000", whole, false, -5,
     "femAccessWrite: FEM response did not acknowledge write transaction to address 0xa0000010", 1},
    {"write acknowledged and refused", 1, write_two, 7, "62", whole, false, -5,
     "femAccessWrite: FEM response did not acknowledge write transaction to address 0xa0000010", 1},
    {"write with neither bit", 1, write_two, 7, "02", whole, false, -5,
     "femAccessWrite: FEM response did not acknowledge write transaction to address 0xa0000010", 1},
    {"count of a write", 1, write_two, 16, "00000001", whole, false, -6,
     "femAccessWrite: Length mismatch during FEM write transaction: requested = 2  responded = 1", 2},
    {"refused read", 1, read_two, 7, "41 A0000010 00000004 00000000", 20, false, -5,
     "femAccessRead: FEM response did not acknowledge read transaction from address 0xa0000010", 1},
    {"refused read with data behind it", 1, read_two, 7, "41 A0000010 00000004 00000000", whole, false, -5,
     "femAccessRead: FEM response did not acknowledge read transaction from address 0xa0000010", 2},
    {"count of a read", 1, read_two, 16, "00000003", whole, false, -6,
     "Length mismatch when reading: requested 2 got 3", 2},
    {"size of a read", 1, read_two, 12, "7FFFFFFF", whole, false, -4,
     "femAccessRead: FEM response has 2147483647 bytes, expected 12", 2},
    {"magic", 1, read_two, 0, "DEADBEE0", whole, false, -4,
     "responseTransaction: Corrupt header magic detected: got 0xdeadbee0 expected 0xdeadbeef", 2},
    {"command", 1, read_two, 4, "04", whole, false, -4,
     "femAccessRead: FEM response is to command 4, requested 1", 2},
    {"refused modification", 1, modify, 7, "43 A0000010 00000004 00000000", 20, false, -5,
     "femAccessRMW: FEM response did not acknowledge read-modify-write transaction to address 0xa0000010", 1},
    {"count of a modification", 1, modify, 16, "00000000", whole, false, -6,
     "femAccessRMW: Length mismatch: requested 1 got 0", 2},
    {"refused message", 1, message, 7, "42", whole, false, -5,
     "femPersonalityWrite: FEM response did not acknowledge personality command 4", 1},
    {"count of a message's answer", 1, status_of_streams, 16, "00000070", whole, false, -6,
     "femPersonalityRead: Length mismatch in personality command 13: requested 2 got 112", 2},
    {"closed before the answer", 1, read_two, 0, "", 0, true, -4, shutdown_text, 2},
    {"closed within the header", 1, read_two, 0, "", 11, true, -4, shutdown_text, 2},
    {"closed within the data", 1, read_two, 0, "", 27, true, -4, shutdown_text, 2},

    {"refused write", 2, write_two, 11, "40", whole, false, -5,
     "plr4AccessWrite: FEM response did not acknowledge write transaction to address 0x10", 1},
    {"count of a write", 2, write_two, 16, "03000000", whole, false, -6,
     "plr4AccessWrite: Length mismatch during FEM write transaction: requested = 2  responded = 3", 2},
    {"refused write with a size", 2, write_two, 11, "40 10000000 02000000 01000000", whole, false, -5,
     "plr4AccessWrite: FEM response did not acknowledge write transaction to address 0x10", 2},
    {"sequence of a write", 2, write_two, 4, "05000000", whole, false, -4,
     "plr4AccessWrite: FEM response has sequence number 5, expected 0", 2},
    {"command", 2, write_two, 8, "02", whole, false, -4,
     "plr4AccessWrite: FEM response has command 2, expected 3", 2},
    {"size of a write", 2, write_two, 20, "04000000", whole, false, -4,
     "plr4AccessWrite: FEM response has payload size 4, expected 0", 2},
    {"magic", 2, read_two, 0, "DEADBEEF", whole, false, -4,
     "responseTransaction: Corrupt header magic detected: got 0xefbeadde expected 0xdeadbeef", 2},
    {"refused read", 2, read_two, 11, "40 10000000 02000000 00000000", 36, false, -5,
     "plr4AccessRead: FEM response did not acknowledge read transaction from address 0x10", 1},
    {"count of a read", 2, read_two, 16, "01000000", whole, false, -6,
     "Length mismatch when reading: requested 2 got 1", 2},
    {"size of a read", 2, read_two, 20, "FFFFFFFF", whole, false, -4,
     "plr4AccessRead: FEM response has payload size 4294967295, expected 8", 2},
    {"sequence of a read", 2, read_two, 4, "FFFFFFFF", whole, false, -4,
     "plr4AccessRead: FEM response has sequence number 4294967295, expected 0", 2},
    {"refused modification", 2, modify, 11, "40 10000000 01000000 00000000", 36, false, -5,
     "plr4AccessRMW: FEM response did not acknowledge transaction at address 0x10", 1},
    {"refused message", 2, message, 11, "40", whole, false, -5,
     "plr4PersonalityWrite: FEM response did not acknowledge write transaction to address 0x4", 1},
    {"closed before the answer", 2, read_two, 0, "", 0, true, -4, shutdown_text, 2},
    {"closed within the header", 2, write_two, 0, "", 35, true, -4, shutdown_text, 2},
    {"closed within the data", 2, read_two, 0, "", 43, true, -4, shutdown_text, 2},
};

// A port at which connections hang: nobody accepts, and its queue is full.
class deaf_port {
  public:
    deaf_port() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in here{};
        here.sin_family = AF_INET;
        here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof here;
        auto *address = reinterpret_cast<sockaddr *>(&here);
        EXPECT_EQ(::bind(listener_.get(), address, size) | ::listen(listener_.get(), 0), 0);
        EXPECT_EQ(::getsockname(listener_.get(), address, &size), 0);
        port_ = ntohs(here.sin_port);
        for (unique_fd &fd : queue_) {
            fd.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            ::connect(fd.get(), address, size);
        }
    }
    int port() const { return port_; }

  private:
    unique_fd listener_;
    std::array<unique_fd, 4> queue_;
    int port_ = 0;
};

milliseconds since(steady_clock::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
}

void expect_time_out(steady_clock::time_point begin) {
    EXPECT_GE(since(begin), milliseconds(4900));
    EXPECT_LE(since(begin), milliseconds(9900)); // twice would be 10 s
}

void expect_the_sending_to_time_out() {
    std::atomic<bool> reads = false;
    peer card(2, [&](const std::string &request) {
        while (!reads)
            std::this_thread::sleep_for(milliseconds(10));
        return peer::good(2, request);
    });
    const handle h = connect(card, 2);
    ASSERT_TRUE(h);
    const int small = 4096;
    ::setsockopt(h->m_skt.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    const std::vector<std::uint32_t> words(0x100000);
    const auto begin = steady_clock::now();
    EXPECT_EQ(pulsar3FemDRAMWrite(*h, 0, words), -3);
    expect_time_out(begin);
    EXPECT_STREQ(plr3_get_error_message(),
                 "plr4AccessWrite: Sending to the FEM failed: Connection timed out");
    reads = true;
    EXPECT_EQ(pulsar3FemDRAMWrite(*h, 0, words), 0);
}

} // namespace

TEST(wire_faults, each_fails_one_access_with_its_text_and_no_more) {
    const int before = open_descriptors();
    for (const fault &f : faults) {
        SCOPED_TRACE(std::string("generation ") + static_cast<char>('0' + f.generation) + ": " + f.what);
        peer card(f.generation, [&f](const std::string &request) {
            reply r = altered(f.generation, request, f.at, f.with, f.length);
            r.close = f.close;
            return r;
        });
        const handle h = connect(card, f.generation);
        ASSERT_TRUE(h);
        EXPECT_EQ(f.call(*h), f.status);
        EXPECT_STREQ(plr3_get_error_message(), f.text);
        EXPECT_EQ(h->m_valid, f.connections == 1);
        card.answer_with({});
        EXPECT_EQ(f.call(*h), 0) << plr3_get_error_message();
        EXPECT_EQ(h->m_valid, 1);
        EXPECT_EQ(h->num_posted_writes, 0);
        EXPECT_EQ(card.connections(), f.connections);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(wire_faults, a_connection_that_is_reset_is_named) {
    peer card(1, [](const std::string &) { return reply{.bytes = "", .close = false, .reset = true}; });
    const handle h = connect(card, 1);
    ASSERT_TRUE(h);
    EXPECT_EQ(read_two(*h), -4);
    EXPECT_STREQ(
        plr3_get_error_message(),
        "responseTransaction: Reading protocol header response from server failed -1 errno: Connection reset by peer");
    card.answer_with({});
    EXPECT_EQ(read_two(*h), 0);
}

TEST(wire_faults, silence_of_every_kind_takes_the_time_out_once_and_the_next_access_is_right) {
    const int before = open_descriptors();
    struct silence {
        int generation;
        int (*call)(FemHandle &);
        std::size_t length; // bytes that come before it
    };
    static const silence kinds[] = {{1, read_two, 0},  {1, read_two, 13},          {1, read_two, 24},
                                    {1, write_two, 0}, {2, read_two, 40},          {2, write_two, 35},
                                    {2, modify, 36},   {2, write_all_channels, 36}};
    std::vector<std::thread> all;
    for (const silence &kind : kinds)
        all.emplace_back([&kind] {
            peer card(kind.generation, [&kind](const std::string &request) {
                return altered(kind.generation, request, 0, "", kind.length);
            });
            const handle h = connect(card, kind.generation);
            ASSERT_TRUE(h);
            const auto begin = steady_clock::now();
            if (kind.call == write_all_channels) // the first answer is whole, those after it are not
                card.answer_with([](const std::string &request) {
                    return request[4] == 0 ? peer::good(2, request) : reply{};
                });
            EXPECT_EQ(kind.call(*h), -4);
            expect_time_out(begin);
            EXPECT_STREQ(
                plr3_get_error_message(),
                "responseTransaction: Reading protocol header response from server failed -1 errno: Connection timed out");
            card.answer_with({});
            EXPECT_EQ(kind.call(*h), 0);
            EXPECT_EQ(card.connections(), 2);
        });
    all.emplace_back([] { // drop by drop is silence, too
        peer card(2);
        const handle h = connect(card, 2);
        ASSERT_TRUE(h);
        const auto begin = steady_clock::now();
        card.answer_with([](const std::string &) { return reply{std::string(1, '\xEF')}; });
        std::thread more([&] {
            for (int i = 0; i < 12; ++i, std::this_thread::sleep_for(milliseconds(500)))
                card.send("\xBE");
        });
        EXPECT_EQ(read_two(*h), -4);
        expect_time_out(begin);
        more.join();
    });
    all.emplace_back([] { // a card that takes nothing
        const deaf_port port;
        const auto begin = steady_clock::now();
        EXPECT_FALSE(pulsar3FemInitialise("127.0.0.1", port.port(), port.port()));
        expect_time_out(begin);
        EXPECT_STREQ(plr3_get_error_message(), "Connection to server refused. Is the server running?");
    });
    all.emplace_back(expect_the_sending_to_time_out);
    for (std::thread &one : all)
        one.join();
    EXPECT_EQ(open_descriptors(), before);
}

TEST(wire_faults, what_came_late_is_never_taken_for_an_answer) {
    for (const int generation : {1, 2}) {
        peer card(generation, [=](const std::string &request) {
            reply r = peer::good(generation, request);
            r.bytes += r.bytes + "xyz"; // the answer again, and a piece of something
            return r;
        });
        const handle h = connect(card, generation);
        ASSERT_TRUE(h);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(write_two(*h), 0) << plr3_get_error_message();
        EXPECT_EQ(read_two(*h), 0) << plr3_get_error_message();
        EXPECT_EQ(card.connections(), 1);
    }
}

TEST(wire_faults, a_vanished_card_is_named_by_the_next_access_and_found_again) {
    const int before = open_descriptors();
    for (const int generation : {1, 2}) {
        auto card = std::make_unique<peer>(generation);
        const int port = card->port();
        const handle h = connect(*card, generation);
        ASSERT_TRUE(h);
        EXPECT_EQ(read_two(*h), 0);
        card.reset();
        EXPECT_EQ(read_two(*h), -4);
        EXPECT_STREQ(plr3_get_error_message(), shutdown_text);
        EXPECT_EQ(read_two(*h), -2);
        EXPECT_STREQ(plr3_get_error_message(), generation == 1 ? "femAccessRead: Not connected to the FEM"
                                                               : "plr4AccessRead: Not connected to the FEM");
        EXPECT_EQ(write_all_channels(*h), -2);
        const peer again(generation, {}, port);
        EXPECT_EQ(again.port(), port);
        EXPECT_EQ(read_two(*h), 0) << plr3_get_error_message();
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(wire_faults, the_ports_are_tried_in_order) {
    const int before = open_descriptors();
    {
        const peer first(1), second(2);
        const handle h = pulsar3FemInitialise("127.0.0.1", first.port(), second.port());
        ASSERT_TRUE(h);
        EXPECT_EQ(h->protocol_generation, ProtocolFEM1);
        EXPECT_EQ(h->max_tx_bytes, 0x10000);
        EXPECT_EQ(h->max_rx_bytes, 1020);
        EXPECT_EQ(h->base_address, 0xA0000000U);
        EXPECT_EQ(second.connections(), 0);
    }
    int refused = 0;
    {
        const peer gone(1);
        refused = gone.port();
    }
    {
        const peer second(2);
        const handle h = pulsar3FemInitialise("127.0.0.1", refused, second.port());
        ASSERT_TRUE(h);
        EXPECT_EQ(h->protocol_generation, ProtocolFEM2);
        EXPECT_EQ(h->max_rx_bytes, 0x10000);
        EXPECT_EQ(h->base_address, 0U);
        EXPECT_EQ(write_two(*h), 0);
        EXPECT_EQ(second.requests()[0].size(), 72U);
    }
    EXPECT_FALSE(pulsar3FemInitialise("127.0.0.1", refused, 0));
    EXPECT_STREQ(plr3_get_error_message(), "Connection to server refused. Is the server running?");
    EXPECT_FALSE(pulsar3FemInitialise("no such name", refused, 0));
    EXPECT_STREQ(plr3_get_error_message(), "pulsar3FemInitialise: Can't get gethostbyname");
    EXPECT_FALSE(pulsar3FemInitialise("127.0.0.1", 0, 65536 + refused));
    EXPECT_EQ(open_descriptors(), before);
}

TEST(wire_faults, a_refused_posted_write_is_named_and_the_others_are_answered) {
    peer card(2, [](const std::string &request) {
        reply r = peer::good(2, request);
        if (request[4] == 5 || request[4] == 9)
            r.bytes[11] = 0x40;
        return r;
    });
    const handle h = connect(card, 2);
    ASSERT_TRUE(h);
    EXPECT_EQ(write_all_channels(*h), -5);
    EXPECT_STREQ(plr3_get_error_message(),
                 "plr4AccessWrite: FEM response did not acknowledge write transaction to address 0x1400010");
    EXPECT_EQ(h->num_posted_writes, 0);
    card.answer_with([](const std::string &request) { // the answers change places
        reply r = peer::good(2, request);
        r.bytes[4] = static_cast<char>(request[4] ^ 1);
        return r;
    });
    EXPECT_EQ(write_all_channels(*h), -4);
    EXPECT_STREQ(plr3_get_error_message(),
                 "plr4AccessWrite: FEM response has sequence number 17, expected 16");
    card.answer_with({});
    EXPECT_EQ(write_all_channels(*h), 0);
    EXPECT_EQ(card.connections(), 2);
}

TEST(wire_faults, a_signal_does_not_end_a_wait) {
    struct sigaction quiet {};
    quiet.sa_handler = [](int) {};
    struct sigaction before {};
    ::sigaction(SIGUSR1, &quiet, &before); // without SA_RESTART
    peer card(2, [](const std::string &request) {
        std::this_thread::sleep_for(milliseconds(300));
        return peer::good(2, request);
    });
    const handle h = connect(card, 2);
    ASSERT_TRUE(h);
    const pthread_t waiting = ::pthread_self();
    std::thread ringing([waiting] {
        for (int i = 0; i < 10; ++i, std::this_thread::sleep_for(milliseconds(50)))
            ::pthread_kill(waiting, SIGUSR1);
    });
    EXPECT_EQ(read_two(*h), 0) << plr3_get_error_message();
    ringing.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(wire_faults, an_interrupt_ends_the_wait_for_a_connection) {
    const deaf_port port;
    plr3_interrupt_hook = [] { return true; };
    const auto begin = steady_clock::now();
    EXPECT_FALSE(pulsar3FemInitialise("127.0.0.1", port.port(), port.port()));
    EXPECT_LT(since(begin), milliseconds(4900));
    EXPECT_STREQ(plr3_get_error_message(), "pulsar3FemInitialise: Interrupted");
    plr3_interrupt_hook = nullptr;
}

TEST(wire_faults, threads_share_a_card) {
    for (const int generation : {1, 2}) {
        peer card(generation);
        const handle h = connect(card, generation);
        ASSERT_TRUE(h);
        std::vector<std::thread> all;
        for (int t = 0; t < 4; ++t)
            all.emplace_back([&] {
                std::vector<std::uint32_t> values(300);
                for (int i = 0; i < 50; ++i)
                    EXPECT_EQ(pulsar3FemGetIntArray(*h, 0, 0, 0, values) | write_two(*h), 0);
            });
        for (std::thread &one : all)
            one.join();
        EXPECT_EQ(card.connections(), 1);
    }
}
