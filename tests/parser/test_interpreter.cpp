// Lines against a small tree of their own: lines that come again, lines within lines, results for a caller.
#include "parser/call.h"
#include "parser/interpreter.h"
#include "parser/tree.h"
#include "tests/helpers/session_capture.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace {

std::string seen;

int take(int quals, int, int a, double b, const char *s, int n) {
    seen = std::to_string(quals) + " " + std::to_string(a) + " " + std::to_string(b) + " " +
           (s ? s : "null") + " " + std::to_string(n) + " t" + std::to_string(TotalArgumentCount) + " o" +
           std::to_string(OptionalArgumentCount) + " " + ArgumentType;
    return a;
}

double real(int, int, double v) {
    return v;
}
pt_string text(int, int, int give) {
    return give ? pt_string("word") : std::nullopt;
}
int again(int, int cn, const char *line) {
    return user_service(cn, line, 0, nullptr, nullptr);
}

constinit const PARSE_TREE sub_tree[] = {
    pt_command<take>("take", "%d %g + %s %d verbose = %d", "takes values", "a/b/s/n/more"), pt_end()};
constinit const PARSE_TREE root[] = {
    pt_subtree("sub", sub_tree, "prefix"),
    pt_command<real>("real", "%g = %g", "gives a real", "value"),
    pt_command<text>("text", "%d = %s", "gives a text", "value"),
    pt_command<again>("again", "%s = %d", "runs a line", "line"),
    pt_end(),
};

std::string reply(const std::string &line) {
    session_capture session;
    pt_set_root(root);
    user_service(session.cn, line.c_str(), 1, nullptr, nullptr);
    return session.replies();
}

// What the line's items are, one after the other, as far as the first that is none.
std::string items_of(scanned_line &line) {
    session_capture session;
    std::string all;
    token next;
    for (std::size_t index = 0; index < 40; ++index) {
        line.scan(session.cn, index, next);
        all += std::to_string(static_cast<int>(next.kind)) + "@" + std::to_string(next.ScannerInputPosn);
        switch (next.kind) {
        case token_kind::integer:
            all += ":" + std::to_string(next.ScannedInt);
            break;
        case token_kind::real:
            all += ":" + std::to_string(next.ScannedDouble);
            break;
        case token_kind::identifier:
            all.append(":").append(next.ScannedId);
            break;
        case token_kind::string:
        case token_kind::undefined_variable:
            all.append(":").append(next.ScannedString);
            break;
        default:
            return all + session.replies();
        }
        all += ' ';
    }
    return all;
}

} // namespace

// A line keeps what is known of one that differs in integers and strings only; wherever else a character is another, it is read anew.
TEST(interpreter, a_line_like_the_last_one_is_what_it_is_alone) {
    static constexpr const char *lines[] = {"set-int 'x' 12",
                                            "set-int 'x' %n*2+17",
                                            "set-int x1 1?2:3 ke24 (-5) 6",
                                            "a 1.5 2e3 4e 5.e6 7.",
                                            "b 0012 9x8",
                                            "c $12 $1f #101 #12",
                                            "d 'x12' \"3\" %1 %n2 %n 45",
                                            "e (string'%3d')7 (int)8.5 (double)9",
                                            "f 2147483647",
                                            "g -2147483648 -214748364 1234567890 123456789",
                                            "h x=5 min(3) (n)-4 4*5-6<<1",
                                            "i 1 2 3 4 5 6 7 8 9 10 11 12",
                                            "j 12?",
                                            "k ?3",
                                            "1",
                                            "12 13",
                                            "-1",
                                            "l 1000000*1000000 7/0 8",
                                            "m 12'34' 56",
                                            "n\t1\r 2 "};
    static constexpr const char *pairs[][2] = {{"a 'xy' 3", "a 'x'' 3"},
                                               {"a \"xy\" 3", "a \"x'\" 4"},
                                               {"a 'x' 3", "a \"x\" 3"},
                                               {"a 'x'+12 5", "a 'y'+1' 5"},
                                               {"a (string'%3d')5 'b'", "a (string'%4x')5 'c'"},
                                               {"a '' 1", "a 'x'1"},
                                               {"a ('b'=='b')", "a ('b'=='c')"}};
    set_int_variable(0, "n", 3, true);
    for (const auto &[first, second] : pairs) {
        scanned_line kept(first);
        items_of(kept);
        kept.assign(second);
        scanned_line fresh(second);
        EXPECT_EQ(items_of(kept), items_of(fresh)) << second;
    }
    unsigned seed = 1;
    const auto digit = [&seed] {
        return static_cast<char>('0' + (seed = seed * 1103515245 + 12345) / 65536 % 10);
    };
    for (const char *const first : lines) {
        scanned_line kept(first);
        items_of(kept);
        std::string line = first;
        for (int again = 0; again < 300; ++again) {
            for (char &c : line)
                if (is_digit(c) && digit() < '5')
                    c = digit();
            kept.assign(line);
            scanned_line fresh(line);
            EXPECT_EQ(items_of(kept), items_of(fresh)) << line;
        }
    }
}

// The line is known from its first run; what its words stand for may have changed since.
TEST(interpreter, a_line_that_comes_again_is_run_anew) {
    EXPECT_EQ(reply("sub take %fresh 1"), "#          ^\n! Undefined Variable 'fresh'\n* -1\n");
    for (const int value : {7, 8}) {
        set_int_variable(0, "fresh", value, true);
        EXPECT_EQ(reply("sub take %fresh 1"), "* " + std::to_string(value) + "\n");
        EXPECT_EQ(reply("again \"sub take %fresh 1+%fresh\""), "* " + std::to_string(value) + "\n");
        EXPECT_EQ(seen,
                  "0 " + std::to_string(value) + " " + std::to_string(value + 1) + ".000000 null 0 t2 o0 df");
    }
    set_string_variable(0, "fresh", "text", true);
    EXPECT_EQ(reply("sub take %fresh 1"), "#          ^\n! Argument 1 should be of type '%d'\n* -1\n");
    const std::string longer = "text 1" + std::string(3000, ' ');
    for (int run = 0; run < 2; ++run) {
        EXPECT_EQ(reply("sub take 1 2 ;"),
                  "! Syntax error in expression\n#              ^\n! Unknown character "
                  "found in the arguments\n* -1\n");
        EXPECT_EQ(reply(longer), "* \"word\"\n");
        EXPECT_EQ(reply(longer + "1").substr(0, 2), "# "); // an argument too many
    }
}

TEST(interpreter, a_line_may_run_itself_while_others_come_between) {
    set_string_variable(0, "inner", "again %inner", true);
    const std::string replies = reply("again %inner");
    EXPECT_EQ(reply("again %inner"), replies);
    EXPECT_EQ(reply("again 'again \"real 2\"'"), "* 0\n");
    for (int other = 0; other < 100; ++other)
        EXPECT_EQ(reply("real " + std::to_string(other)), "* " + std::to_string(other) + "\n");
}

TEST(interpreter, stores_typed_results_and_marks_bare_values) {
    session_capture session;
    pt_set_root(root);
    Variable result;
    int status = -1;
    EXPECT_EQ(user_service_result(session.cn, "real 2.5", &result, &status), 0);
    EXPECT_EQ(result.type, vt_double);
    EXPECT_EQ(result.DoubleVar, 2.5);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(user_service_result(session.cn, "text 0", &result, &status), -1);
    EXPECT_EQ(result.StringVar, "(null)");
    EXPECT_EQ(user_service_result(session.cn, "-1", &result, &status), -1);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(session.replies(), "");
}
