// From bytes to lines: line ends, telnet commands, keys, completion. Every case is fed whole and byte by
// byte, because the network cuts where it likes.
#include "server/hooks.h"
#include "server/input_machine.h"

#include <gtest/gtest.h>
#include <memory>

namespace kestrel {
namespace {

using namespace std::string_literals;

struct outcome {
    std::vector<std::string> lines;
    std::string reply;
    std::string notice;
    input_event last = input_event::more;
};

// Feeds pieces of at most `step` bytes; stops at an event that ends the session.
outcome feed(client_descriptor &c, std::string_view bytes, std::size_t step) {
    outcome result;
    while (!bytes.empty()) {
        std::size_t used = 0;
        result.last = sv_input_feed(c, bytes.substr(0, step), used, {result.reply, result.notice});
        bytes.remove_prefix(used);
        EXPECT_LE(c.len, sv_line_max);
        EXPECT_LE(c.pos, c.len);
        EXPECT_EQ(c.input[c.len], '\0');
        if (result.last == input_event::line)
            result.lines.emplace_back(c.input);
        if (result.last == input_event::disconnect || result.last == input_event::overlong)
            break;
    }
    return result;
}

outcome feed(std::string_view bytes, std::size_t step = 1000, int echo_mode = 0) {
    const auto c = std::make_unique<client_descriptor>();
    c->echo_mode = echo_mode;
    return feed(*c, bytes, step);
}

struct line_case {
    const char *name;
    std::string bytes;
    std::vector<std::string> lines;
};

std::ostream &operator<<(std::ostream &out, const line_case &c) {
    return out << c.name;
}

class plain_lines : public testing::TestWithParam<line_case> {};
class edited_lines : public testing::TestWithParam<line_case> {};

TEST_P(plain_lines, come_out_however_the_bytes_are_cut) {
    for (const std::size_t step : {1000U, 1U, 2U, 3U})
        EXPECT_EQ(feed(GetParam().bytes, step).lines, GetParam().lines) << "step " << step;
}

INSTANTIATE_TEST_SUITE_P(
    server, plain_lines,
    testing::Values(
        line_case{"lf", "a\nb\n", {"a", "b"}}, line_case{"cr lf", "a\r\nb\n", {"a", "b"}},
        line_case{"lf cr", "a\n\rb\n\r", {"a", "b"}}, line_case{"cr", "a\rb\r", {"a", "b"}},
        line_case{"empty lines", "\n\na\r\n\r\nb\r", {"", "", "a", "", "b"}},
        line_case{"a pair is used once", "a\r\n\nb\n", {"a", "", "b"}},
        line_case{"no pair across a byte", "a\rb\nc\n", {"a", "b", "c"}},
        line_case{"nul is nothing", "a\0b\0\r\0\nc\n"s, {"ab", "c"}},
        line_case{"backspaces", "ab\x7f\bc\n\b\bd\n", {"c", "d"}}, line_case{"unfinished", "a\nrest", {"a"}},
        line_case{"1024 characters", std::string(1024, 'x') + "\ny\n", {std::string(1024, 'x'), "y"}},
        line_case{
            "a backspace makes room", std::string(1024, 'x') + "\by\n", {std::string(1023, 'x') + "y"}}));

TEST(plain_input, of_one_byte_too_many_is_refused) {
    const outcome result = feed(std::string(1025, 'x'));
    EXPECT_EQ(result.last, input_event::overlong);
    EXPECT_TRUE(result.lines.empty());
}

// In character mode from the start.
TEST_P(edited_lines, come_out_however_the_bytes_are_cut) {
    for (const std::size_t step : {1000U, 1U, 2U})
        EXPECT_EQ(feed(GetParam().bytes, step, 1).lines, GetParam().lines) << "step " << step;
}

INSTANTIATE_TEST_SUITE_P(
    server, edited_lines,
    testing::Values(line_case{"enter", "a\rb\nc\r\nd\r\0e\n\rf\r"s, {"a", "b", "c", "d", "e", "f"}},
                    line_case{"home and end",
                              "b\x01"
                              "a\x05"
                              "c\r",
                              {"abc"}},
                    line_case{"left and right",
                              "ac\x02"
                              "b\x06"
                              "d\r",
                              {"abcd"}},
                    line_case{"moves stop at the ends",
                              "\x02\x02"
                              "a\x06\x06"
                              "b\x01\x02"
                              "c\r",
                              {"cab"}},
                    line_case{"backspaces",
                              "abx\x7f"
                              "y\x08"
                              "c\r",
                              {"abc"}},
                    line_case{"delete under the cursor", "axb\x02\x02\x04\r", {"ab"}},
                    line_case{"^D at the end of a line", "ab\x04\r", {"ab"}},
                    line_case{"delete to the end", "abcd\x02\x02\x0b\r", {"ab"}},
                    line_case{"clear the line",
                              "abcd\x02\x15"
                              "e\r",
                              {"e"}},
                    line_case{"delete a word", "one two  \x17three\x01\x17\r", {"one three"}},
                    line_case{"swap",
                              "abdc\x02\x14"
                              "e\x14\r",
                              {"abcde"}},
                    line_case{"swap needs two",
                              "a\x14\x01\x14"
                              "b\r",
                              {"ba"}},
                    line_case{"arrow keys", "ac\x1b[Db\x1b[Cd\x1b[H0\x1b[Fe\r", {"0abcde"}},
                    line_case{"other home and end", "b\x1bOHa\x1bOFc\r", {"abc"}},
                    line_case{"delete key", "axb\x1b[D\x1b[D\x1b[3~\r", {"ab"}},
                    line_case{"unknown sequences", "a\x1b[1;5C\x1b[Zb\x1b[15~\x1bOPc\r", {"abc"}},
                    line_case{"a lone escape",
                              "a\x1b"
                              "b\x1b\x1b[Dc\r",
                              {"acb"}},
                    line_case{
                        "history", "one\rtwo\r\x10\x10\r\x10\x10\x10\x0e\r", {"one", "two", "one", "two"}},
                    line_case{"history keys", "one\rtwo\r\x1b[A\x1b[A\x1b[B\r", {"one", "two", "two"}},
                    line_case{"the typed line waits",
                              "one\rtw\x10\x0e"
                              "o\r",
                              {"one", "two"}},
                    line_case{"beyond the history", "one\r\x10\x10\x10!\r\x0e\x0e?\r", {"one", "one!", "?"}},
                    line_case{"control bytes are no text",
                              "a\x07\x16\x1d"
                              "b\r",
                              {"ab"}},
                    line_case{"high bytes are text", "\xc3\xa4\r", {"\xc3\xa4"}},
                    line_case{"telnet commands",
                              "a\xff\xf1"
                              "b\xff\xfd\x01"
                              "c\xff\xfc\x22\r",
                              {"abc"}},
                    line_case{"a literal 255",
                              "a\xff\xff"
                              "b\r",
                              {"a\xff"
                               "b"}},
                    line_case{"^C leaves the line",
                              "a\x03"
                              "b\r",
                              {"ab"}},
                    line_case{"a full line", std::string(1030, 'x') + "\r", {std::string(1024, 'x')}}));

TEST(character_mode, beeps_when_the_line_is_full) {
    EXPECT_EQ(feed(std::string(1024, 'x'), 1000, 1).reply.find('\a'), std::string::npos);
    EXPECT_NE(feed(std::string(1025, 'x'), 1000, 1).reply.find('\a'), std::string::npos);
}

TEST(character_mode, ends_the_session_by_control_d_on_an_empty_line_only) {
    EXPECT_EQ(feed("a\x04", 1000, 1).last, input_event::more);
    EXPECT_EQ(feed("a\x7f\x04", 1000, 1).last, input_event::disconnect);
}

TEST(character_mode, pauses_at_control_c_and_leaves_the_rest) {
    const auto c = std::make_unique<client_descriptor>();
    c->echo_mode = 1;
    std::string reply;
    std::string notice;
    std::size_t used = 0;
    EXPECT_EQ(sv_input_feed(*c, "ab\x03rest", used, {reply, notice}), input_event::pause);
    EXPECT_EQ(used, 3U);
}

TEST(character_mode, forgets_the_oldest_lines_beyond_its_capacity) {
    const auto c = std::make_unique<client_descriptor>();
    c->echo_mode = 1;
    std::string bytes;
    for (int i = 0; i < 105; ++i)
        bytes += "line" + std::to_string(i) + "\r";
    feed(*c, bytes, 1000);
    EXPECT_EQ(c->history_len, 100);
    EXPECT_EQ(feed(*c, std::string(200, '\x10') + "\r", 1000).lines.back(), "line5");
}

// ---- telnet

constexpr std::string_view requests = "\xff\xfe\x22\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1f";

TEST(telnet, is_answered_with_the_requests_once) {
    for (const std::size_t step : {1000U, 1U}) {
        const outcome result = feed("\xff\xfd\x01\xff\xfd\x03\xff\xfb\x1f\xff\xfe\x05\xff\xfc\x06", step);
        EXPECT_EQ(result.reply, requests);
        EXPECT_EQ(result.notice, "Sending don't line mode, will echo, will supress-go-ahead, do_naws\n"
                                 "Rcv: DO 01\nRcv: DO 03\nRcv: DONT 05\nRcv: WONT 06\n");
    }
}

TEST(telnet, keeps_what_was_typed_before_it_and_its_history) {
    const auto c = std::make_unique<client_descriptor>();
    EXPECT_EQ(feed(*c,
                   "plain\nab\xff\xf1"
                   "c\r\x10\r",
                   1000)
                  .lines,
              (std::vector<std::string>{"plain", "abc", "abc"}));
    EXPECT_EQ(c->echo_mode, 1);
}

struct window_case {
    const char *name;
    std::string report; // between IAC SB NAWS and IAC SE
    std::size_t cols;
    std::string notice;
};

TEST(telnet, reports_the_window_size) {
    const window_case cases[] = {
        {"usual", "\0\x50\0\x18"s, 80, "NAWS (80, 24)\n"},
        {"wide", "\x01\x02\x03\x04", 258, "NAWS (258, 772)\n"},
        {"a doubled 255", "\0\xff\xff\0\x10"s, 255, "NAWS (255, 16)\n"},
        {"twice doubled", "\xff\xff\xff\xff\0\x10"s, 65535, "NAWS (65535, 16)\n"},
        {"height 240 is no end", "\0\x50\0\xf0"s, 80, "NAWS (80, 240)\n"},
        {"width 0 keeps the old", "\0\0\0\x18"s, 40, "NAWS (0, 24)\n"},
        {"cut short", "\0\x50"s, 40, ""},
    };
    for (const window_case &w : cases) {
        for (const std::size_t step : {1000U, 1U}) {
            const auto c = std::make_unique<client_descriptor>();
            c->echo_mode = 1;
            c->neg_state = negotiation_state::SentRequests;
            const outcome result = feed(*c,
                                        "\xff\xfa\x1f" + w.report +
                                            "\xff\xf0"
                                            "after\r",
                                        step);
            EXPECT_EQ(c->cols, w.cols) << w.name;
            EXPECT_EQ(result.notice, w.notice) << w.name;
            EXPECT_EQ(result.lines, std::vector<std::string>{"after"}) << w.name;
        }
    }
}

TEST(telnet, skips_other_subnegotiations) {
    EXPECT_EQ(feed("\xff\xfa\x18\x1f"
                   "xterm\x1f\xff\xf0"
                   "after\r")
                  .lines,
              std::vector<std::string>{"after"});
}

// ---- completion

std::vector<std::string> words(std::string_view line) {
    std::vector<std::string> result;
    for (const std::string word : {"maths", "modify", "module"}) {
        if (word.starts_with(line))
            result.push_back(word);
    }
    return result;
}

class completion : public testing::Test {
  protected:
    void SetUp() override { sv_hooks.complete = words; }
    void TearDown() override { sv_hooks.complete = nullptr; }
};

TEST_F(completion, cycles_through_the_candidates_and_the_line_as_typed) {
    const line_case cases[] = {
        {"the first", "m\t\r", {"maths"}},
        {"the second", "m\t\t\r", {"modify"}},
        {"as typed", "m\t\t\t\t\r", {"m"}},
        {"round again", "m\t\t\t\t\t\r", {"maths"}},
        {"escape restores", "m\t\t\x1bx\r", {"mx"}},
        {"an arrow restores and moves", "m\t\x1b[Dx\r", {"xm"}},
        {"another key keeps", "mo\t\tx\r", {"modulex"}},
        {"enter keeps", "mod\t\r\n\r", {"modify", ""}},
        {"backspace keeps and deletes", "mo\t\x7f\r", {"modif"}},
        {"a single one", "ma\t!\r", {"maths!"}},
        {"a single one again", "ma\t\t\t!\r", {"maths!"}},
        {"none", "x\ty\r", {"xy"}},
        {"what follows the cursor stays", "mo 1\x02\x02\t\r", {"modify 1"}},
        {"telnet in between", "m\t\xff\xf1x\r", {"mathsx"}},
    };
    for (const line_case &k : cases) {
        for (const std::size_t step : {1000U, 1U})
            EXPECT_EQ(feed(k.bytes, step, 1).lines, k.lines) << k.name;
    }
}

TEST_F(completion, beeps_without_candidates_and_on_the_line_as_typed) {
    const auto beeps = [](std::string_view bytes) {
        const std::string reply = feed(bytes, 1000, 1).reply;
        return std::count(reply.begin(), reply.end(), '\a');
    };
    EXPECT_EQ(beeps("x\t"), 1);
    EXPECT_EQ(beeps("m\t\t\t"), 0);
    EXPECT_EQ(beeps("m\t\t\t\t"), 1);
}

TEST_F(completion, offers_nothing_that_would_not_fit) {
    EXPECT_EQ(feed("mo" + std::string(1021, 'x') + "\x01\x06\x06\t\r", 1000, 1).lines.back().size(), 1023U);
}

// ---- lines that a command asks for

struct answer_case {
    const char *name;
    std::string bytes;
    int echo;
    std::string line;
    std::string reply;
};

TEST(answers, are_read_without_editing) {
    const answer_case cases[] = {
        {"plain", "\n42\n", 0, "42", ""}, // the LF belongs to the command's own CR LF
        {"echoed", "4x\b2\r", 1, "42", "4x\b \b2\r\n"},
        {"nothing to delete",
         "\x7f\x7f"
         "4\r",
         1, "4", "4\r\n"},
        {"long", std::string(3000, 'x') + "\n", 0, std::string(3000, 'x'), ""},
        {"telnet in between",
         "4\xff\xf1"
         "2\r",
         1, "42", "4" + std::string(requests) + "2\r\n"},
    };
    for (const answer_case &a : cases) {
        const auto c = std::make_unique<client_descriptor>();
        c->inp_state = input_state::PrevCR;
        c->echo_mode = a.echo;
        std::string line;
        std::string reply;
        std::string notice;
        std::size_t used = 0;
        const answer_form form{.telnet = true, .echo = a.echo != 0};
        EXPECT_EQ(sv_input_answer(*c, a.bytes + "rest", used, line, form, {reply, notice}), input_event::line)
            << a.name;
        EXPECT_EQ(line, a.line) << a.name;
        EXPECT_EQ(reply, a.reply) << a.name;
        EXPECT_EQ(used, a.bytes.size()) << a.name;
    }
}

} // namespace
} // namespace kestrel
