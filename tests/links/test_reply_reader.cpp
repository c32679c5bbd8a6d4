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
            if (event == reply_event::garbage)
                return "garbage";
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
        {"~ Retry (Y/N)\r\n* 0\r\n> ", "~[Retry (Y/N)] prompt int 0"},
        {"plain\r\n#\t0\tOpen\r\n* 0\n> ", "text[plain] #[\t0\tOpen] prompt int 0"},
        // a text without a line end in front of the result
        {"! must all be greater than zero.* -1\r\n> ", "![must all be greater than zero.] prompt int -1"},
        {"Name? * 0\r\n> ", "text[Name? ] prompt int 0"},
        // the last result line counts; a dump's items are none
        {"* 1\r\n* 2\r\n> ", "prompt int 2"},
        {"* \"SIZE 3\"\r\n* 0\r\n> ", "prompt int 0"},
        {"* nothing\r\n> ", "text[* nothing] prompt none"},
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

TEST(reply_reader, gives_up_an_endless_line) {
    EXPECT_EQ(read(std::string(reply_line_max + 2, 'x'), 4096), "garbage");
    EXPECT_EQ(read("# " + std::string(reply_line_max + 2, 'x') + "\n", 100000), "garbage");
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
