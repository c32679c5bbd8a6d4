// What another server says, fed in one piece and byte by byte: the events and results must be the same.
#include "instruments/links/reply_reader.h"

#include <gtest/gtest.h>

using namespace kestrel::links;

namespace {

std::string shown(const remote_result &result) {
    if (const int *i = std::get_if<int>(&result))
        return "int " + std::to_string(*i);
    if (const double *d = std::get_if<double>(&result))
        return "double " + std::to_string(*d);
    if (const std::string *s = std::get_if<std::string>(&result))
        return "string " + *s;
    if (std::holds_alternative<remote_unknown>(result))
        return "unknown";
    return std::holds_alternative<remote_null>(result) ? "null" : "none";
}

// The events up to the last byte, one a word, and the result.
std::string read(std::string_view bytes, std::size_t piece) {
    reply_reader reader;
    std::string log;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
        reader.feed(bytes.substr(at, piece));
        for (;;) {
            const reply_event event = reader.next();
            if (event == reply_event::more || event == reply_event::prompt)
                break;
            static constexpr const char *names[] = {"", "#", "!", "@", "~", "text"};
            log += std::string(names[static_cast<int>(event)]) + "[" + reader.text() + "] ";
            if (event == reply_event::progress)
                log += std::to_string(reader.progress().done) + "/" +
                       std::to_string(reader.progress().total) + " " + reader.progress().label + " ";
        }
    }
    return log + (reader.next() == reply_event::prompt ? "prompt " : "open ") + shown(reader.result());
}

} // namespace

TEST(reply_reader, takes_what_a_server_sends) {
    const std::pair<const char *, const char *> cases[] = {
        {"> ", "prompt none"},
        {"* 5\r\n> ", "prompt int 5"},
        {"* -1\r\n> ", "prompt int -1"},
        {"* $ff\r\n> ", "prompt int 255"},
        {"* $ffffffff\r\n> ", "prompt int -1"},
        {"* #00000000000000000000000000000101\r\n> ", "prompt int 5"},
        {"* 2.5\r\n> ", "prompt double 2.500000"},
        {"* 1e+06\r\n> ", "prompt double 1000000.000000"},
        {"* \"a b\"\r\n> ", "prompt string a b"},
        {"* \"\"\r\n> ", "prompt string "},
        {"* (null)\r\n> ", "prompt null"},
        {"# one\r\n! ERROR: two\r\n* 0\r\n> ", "#[one] ![ERROR: two] prompt int 0"},
        {"@ 3 4 'x y'\r\n@ 4 4 ''\r\n* 0\r\n> ", "@[3 4 'x y'] 3/4 x y @[4 4 ''] 4/4  prompt int 0"},
        {"~/data\r\n~ Retry (Y/N) \r\n* 0\r\n> ", "text[~/data] text[~ Retry (Y/N) ] prompt int 0"},
        {"@x\r\n@ 3\r\n* 0\r\n> ", "text[@x] text[@ 3] prompt int 0"},
        {"plain\r\n#\t0\tOpen\r\n* 0\n> ", "text[plain] #[\t0\tOpen] prompt int 0"},
        // the one text without a line end in front of the result; others merely end so
        {"! dx, dy and dt must all be greater than zero.* -1\r\n> ",
         "![dx, dy and dt must all be greater than zero.] prompt int -1"},
        {"# 2 * 3\r\n* \"2 * 3\"\r\n> ", "#[2 * 3] prompt string 2 * 3"},
        {"# x * 5\r\n> ", "#[x * 5] prompt none"},
        {"Name? * 0\r\n> ", "text[Name? * 0] prompt none"},
        // only the last line is a result
        {"* 1\r\n* 2\r\n> ", "text[* 1] prompt int 2"},
        {"* 5\r\nthe end\r\n> ", "text[* 5] text[the end] prompt none"},
        {"* \"SIZE 3\"\r\n* 0\r\n> ", "text[* \"SIZE 3\"] prompt int 0"},
        {"* nothing\r\n> ", "text[* nothing] prompt unknown"},
        {"* nothing\r\n* 0\r\n> ", "text[* nothing] prompt int 0"},
        // what came between two commands stands behind the old prompt
        {"> # late\r\n* 7\r\n> ", "#[late] prompt int 7"},
        {"> quoted\r\n* 7\r\n> ", "text[> quoted] prompt int 7"},
        {"* 5\r\n", "open int 5"},
        {"# half", "open none"},
    };
    for (const auto &[bytes, expected] : cases) {
        EXPECT_EQ(read(bytes, 1000), expected) << bytes;
        EXPECT_EQ(read(bytes, 1), expected) << bytes;
    }
}

TEST(reply_reader, knows_the_question_by_the_silence_behind_it) {
    reply_reader reader;
    reader.feed("~ Retry (Y/N)\r\n");
    EXPECT_EQ(reader.next(), reply_event::question);
    reader.feed("~ Retry (Y/N)\r\n* 0\r\n> ");
    EXPECT_EQ(reader.next(), reply_event::text);
}

TEST(reply_reader, stays_at_the_prompt_behind_which_something_is_said) {
    reply_reader reader;
    reader.feed("> # late\r\n! and later\r\n");
    EXPECT_EQ(reader.next(), reply_event::information);
    EXPECT_EQ(reader.next(), reply_event::error);
    EXPECT_EQ(reader.next(), reply_event::prompt);
    reader.reset();
    reader.feed("> # late\r\n");
    EXPECT_EQ(reader.next(), reply_event::information);
    EXPECT_EQ(reader.next(), reply_event::more) << "of the command sent since";
}

TEST(reply_reader, hands_a_long_line_on_in_pieces) {
    const std::string half(reply_line_max / 2, 'x');
    for (const std::size_t piece : {std::size_t{65536}, 3 * reply_line_max}) {
        const std::string log = read("# " + half + half + half + "\r\n* 1\r\n> ", piece);
        EXPECT_EQ(log.size(), 3 * half.size() + std::string_view("#[] text[] prompt int 1").size());
        EXPECT_TRUE(log.starts_with("#[x") && log.ends_with("x] prompt int 1"));
    }
    const std::string longest(kestrel::string_value_max, 'r');
    EXPECT_EQ(read("* \"" + longest + "\"\r\n> ", 65536), "prompt string " + longest);
}

TEST(reply_reader, is_certain_of_a_prompt_behind_a_result_only) {
    reply_reader reader;
    reader.feed("> ");
    EXPECT_EQ(reader.next(), reply_event::prompt);
    EXPECT_FALSE(reader.certain()) << "a text may begin so";
    reader.reset();
    reader.feed("* 1\r\n> ");
    EXPECT_EQ(reader.next(), reply_event::prompt);
    EXPECT_TRUE(reader.certain());
}
