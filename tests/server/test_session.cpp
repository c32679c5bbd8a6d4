// A session's output and input over a socket pair.
#include "server/activity.h"
#include "server/client_descriptor.h"
#include "server/data_channel.h"
#include "server/input.h"
#include "server/interrupt.h"
#include "server/outbox.h"
#include "server/output.h"
#include "server/timebar.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <gtest/gtest.h>
#include <poll.h>
#include <regex>
#include <sys/socket.h>
#include <thread>

namespace kestrel {
namespace {

constexpr int cn = 7;

class session : public testing::Test {
  protected:
    void SetUp() override {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        use_network = 1;
        close_server = 0;
        sv_quit = 0;
        peer_.reset(ends[1]);
        nr_conns = 1;
        sv_fill_slot(cn, ends[0], ends[0]);
    }
    void TearDown() override {
        sv_disconnect_client(cn);
        sv_patience = std::chrono::seconds(30);
        use_network = 0;
        timebar_on = 0;
    }

    void type(std::string_view bytes) const {
        ASSERT_EQ(::send(peer_.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }

    // What has arrived at the peer.
    std::string heard() const {
        std::string text;
        char block[65536];
        ssize_t n = 0;
        while ((n = ::recv(peer_.get(), block, sizeof block, MSG_DONTWAIT)) > 0)
            text.append(block, static_cast<std::size_t>(n));
        return text;
    }

    std::string line(std::size_t size = 100) const {
        std::string buffer(size, '?');
        const char *text = sv_getline(cn, buffer.data(), buffer.size());
        return text ? text : "(null)";
    }

    unique_fd peer_;
};

TEST_F(session, sends_every_lf_as_cr_lf) {
    EXPECT_EQ(sv_printf(cn, "a\nb\n"), 4);
    sv_write(cn, "raw\n", 4);
    sv_flush(cn);
    EXPECT_EQ(heard(), "a\r\nb\r\nraw\n");
}

TEST_F(session, gathers_replies_until_they_are_flushed) {
    sv_printf(cn, "one\n");
    EXPECT_EQ(heard(), "");
    sv_printf(cn, "two\n");
    EXPECT_EQ(sv_poll_quit(cn), 0);
    EXPECT_EQ(heard(), "one\r\ntwo\r\n");
    EXPECT_FALSE(outbox_attention());
}

int vprint(const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int length = sv_vprintf(cn, format, args);
    va_end(args);
    return length;
}

TEST_F(session, cuts_long_formatted_texts_and_keeps_their_line_end) {
    const std::string text(3000, 'x');
    EXPECT_EQ(sv_printf(cn, "%s\n", text.c_str()), 1223);
    EXPECT_EQ(sv_printf(cn, "%s", text.c_str()), 1223);
    EXPECT_EQ(vprint("%s\n", text.c_str()), 1047);
    EXPECT_EQ(sv_print(cn, text + "\n"), 3001);
    sv_flush(cn);
    EXPECT_EQ(heard(), text.substr(0, 1222) + "\r\n" + text.substr(0, 1223) + text.substr(0, 1046) + "\r\n" +
                           text + "\r\n");
}

TEST_F(session, shows_progress_at_once) {
    sv_timebar(cn, 3, 10, nullptr);
    sv_timebar(cn, 4, 10, "scan");
    EXPECT_EQ(heard(), "@ 3 10 ''\r\n@ 4 10 'scan'\r\n");
}

TEST_F(session, draws_progress_over_itself_and_what_follows_below) {
    use_network = 0; // as on the terminal
    sv_timebar(cn, 1, 4, nullptr);
    sv_timebar(cn, 2, 4, "scan");
    sv_write(cn, "raw", 3);
    EXPECT_EQ(timebar_on, 1);
    sv_printf(cn, "done\n");
    sv_printf(cn, "next\n");
    EXPECT_EQ(timebar_on, 0);
    sv_flush(cn);
    const std::regex shown("@ [-|/\\\\]   1/4   =  25\\.0%  \r"
                           "@ 'scan' [-|/\\\\]   2/4   =  50\\.0%  \r"
                           "raw\ndone\r\nnext\r\n");
    EXPECT_TRUE(std::regex_match(heard(), shown));
    use_network = 1;
}

TEST_F(session, keeps_the_lines_of_threads_apart) {
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w)
        workers.emplace_back([w] {
            for (int i = 0; i < 200; ++i)
                sv_printf(cn, "worker %d says %d\n", w, i);
        });
    std::atomic<bool> done = false;
    std::string text;
    std::thread reader([&] {
        while (!done)
            text += heard();
    });
    for (int i = 0; i < 200; ++i)
        sv_printf(cn, "worker %d says %d\n", 9, i);
    for (std::thread &worker : workers)
        worker.join();
    sv_flush(cn);
    done = true;
    reader.join();
    text += heard();
    std::size_t lines = 0;
    for (std::size_t at = 0; at < text.size(); ++lines) {
        const std::size_t end = text.find("\r\n", at);
        ASSERT_EQ(text.compare(at, 7, "worker "), 0);
        ASSERT_LE(end - at, 19U);
        at = end + 2;
    }
    EXPECT_EQ(lines, 1000U);
}

TEST_F(session, leaves_no_memory_in_its_slot) {
    type(std::string(50'000, 'x'));
    EXPECT_GT(sv_receive(client[cn]), 0);
    sv_print(cn, std::string(50'000, 'y'));
    sv_disconnect_client(cn);
    EXPECT_LT(client[cn].received.bytes.capacity(), 100);
    EXPECT_LT(client[cn].outbox.pending.capacity(), 100);
}

TEST_F(session, of_a_peer_that_reads_nothing_breaks_and_takes_no_more) {
    sv_patience = std::chrono::milliseconds(100);
    const std::string much(1'000'000, 'x');
    const auto start = std::chrono::steady_clock::now();
    sv_print(cn, much); // longer than the socket's buffers
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(100));
    EXPECT_LT(waited, std::chrono::seconds(20));
    EXPECT_TRUE(outbox_look(cn).broken);
    EXPECT_EQ(sv_printf(cn, "more"), 4); // the caller need not know
    EXPECT_EQ(sv_writeln(cn, "more", 4), -1);
    EXPECT_EQ(line(), "(null)");
}

TEST_F(session, of_a_slow_peer_gets_everything_in_order) {
    std::string sent;
    for (int i = 0; i < 200'000; ++i)
        sent += std::to_string(i) + ' ';
    std::string text;
    std::thread reader([&] {
        while (text.size() < sent.size()) {
            pollfd p{peer_.get(), POLLIN, 0};
            if (::poll(&p, 1, 20'000) <= 0)
                return;
            char block[3000];
            text.append(block, static_cast<std::size_t>(::recv(peer_.get(), block, sizeof block, 0)));
        }
    });
    sv_print(cn, sent);
    sv_flush(cn);
    reader.join();
    EXPECT_TRUE(text == sent);
}

TEST_F(session, survives_a_peer_that_vanished) {
    peer_.reset();
    sv_printf(cn, "to nobody\n");
    sv_flush(cn);
    EXPECT_TRUE(outbox_look(cn).broken);
    sv_disconnect_client(cn);
    EXPECT_FALSE(sv_is_valid(cn));
    EXPECT_FALSE(outbox_attention());
    EXPECT_EQ(sv_writeln(cn, "x", 1), -1);
    EXPECT_EQ(line(), "(null)");
    EXPECT_EQ(sv_wait_retry(cn), -1);
}

TEST_F(session, ends_with_its_input) {
    type("unfinished");
    ::shutdown(peer_.get(), SHUT_WR);
    EXPECT_EQ(line(), "(null)");
    EXPECT_FALSE(sv_is_valid(cn));
}

TEST_F(session, stops_reading_at_an_interrupt) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = quit_handler;
    ::sigaction(SIGINT, &action, &before);
    std::thread user([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ::raise(SIGINT); // in this thread: it must reach the one that waits
    });
    EXPECT_EQ(line(), "(null)");
    EXPECT_EQ(sv_quit, 1);
    EXPECT_EQ(sv_wait_retry(cn), -1);
    EXPECT_TRUE(sv_is_valid(cn));
    user.join();
    ::sigaction(SIGINT, &before, nullptr);
}

TEST_F(session, is_interrupted_in_the_line_that_was_meant_and_in_no_other) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = quit_handler;
    ::sigaction(SIGINT, &action, &before);
    const auto stop = [](std::uint64_t number) {
        return std::async(std::launch::async, sv_interrupt_line, number).get();
    };
    sv_quit = 0;
    activity_begin(cn, "first", activity_clock::now());
    const std::uint64_t first = sv_running_line;
    EXPECT_EQ(stop(first), interrupt_result::came);
    EXPECT_EQ(sv_quit, 1);
    activity_end(activity_clock::now());
    sv_quit = 0;
    EXPECT_EQ(stop(first), interrupt_result::line_has_ended);
    activity_begin(cn, "second", activity_clock::now());
    EXPECT_EQ(stop(first), interrupt_result::line_has_ended);
    EXPECT_EQ(sv_quit, 0);
    ::raise(SIGINT); // ^C means whatever runs
    EXPECT_EQ(sv_quit, 1);
    activity_end(activity_clock::now());
    ::sigaction(SIGINT, &before, nullptr);
}

TEST_F(session, asks_whether_to_retry) {
    type("\r\nhm? y");
    EXPECT_EQ(sv_wait_retry(cn), 1);
    type("qN");
    EXPECT_EQ(sv_wait_retry(cn), 0);
    sv_flush(cn);
    EXPECT_EQ(heard(), "~ Retry (Y/N)\r\n~ Retry (Y/N)\r\n");
}

TEST_F(session, measures_the_terminal_among_typed_bytes) {
    type("ahead \x1b[7;1Rand \x1b[7;133Rbehind\n");
    sv_set_echo(cn, 1);
    EXPECT_EQ(client[cn].machine.edit.cols, 132U);
    sv_flush(cn);
    EXPECT_EQ(heard(), "\x1b[6n\x1b[999C\x1b[6n\x1b[132D");
    sv_set_echo(cn, 0);
    EXPECT_EQ(line(), "ahead and behind");
}

TEST_F(session, has_no_data_channel_before_a_port_is_set) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(sv_data_write(cn, "x", 1), -1);
    EXPECT_LT(sv_data_open(cn), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "server: Not connected to client's data port yet.\nserver: Not connected to client's data port "
              "yet.\n");
    sv_data_setport(cn, 70000);
    EXPECT_LT(sv_data_open(cn), 0);
    EXPECT_EQ(sv_get_data_sock(cn), -1);
}

} // namespace
} // namespace kestrel
