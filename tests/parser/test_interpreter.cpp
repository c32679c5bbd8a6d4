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

} // namespace

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
