// Lines against a small tree of their own: lookup, conversion, qualifiers, results, nesting.
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

int qualifiers(int quals, int) {
    seen = std::to_string(quals);
    if (quals & 1)
        seen += " " + std::to_string(Qualifier[0].IntArg);
    if (quals & 2)
        seen += " " + std::to_string(Qualifier[1].DoubleArg);
    if (quals & 4)
        seen += " " + std::to_string(std::string(Qualifier[2].StringArg).size());
    return 0;
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

const PARSE_TREE sub_tree[] = {
    pt_command<take>("take", "%d %g + %s %d verbose = %d", "takes values", "a/b/s/n/more"), pt_end()};
const PARSE_TREE root[] = {
    pt_subtree("sub", sub_tree, "prefix"),
    pt_command<qualifiers>("quals", "whole %d piece %g name %s plain = %d", "takes qualifiers", ""),
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

TEST(interpreter, converts_arguments_by_the_format) {
    EXPECT_EQ(reply("SUB Take 3 4"), "* 3\n");
    EXPECT_EQ(seen, "0 3 4.000000 null 0 t2 o0 df");
    EXPECT_EQ(reply("sub take 1+2 .5 'a b' 7 VERBOSE"), "* 3\n");
    EXPECT_EQ(seen, "1 3 0.500000 a b 7 t4 o2 dfsd");
    EXPECT_EQ(reply("sub take 1 2 \"x\" verbose verbose"), "* 1\n");
    EXPECT_EQ(seen, "1 1 2.000000 x 0 t3 o1 dfs");
}

TEST(interpreter, refuses_with_the_caret_under_the_item) {
    const std::pair<const char *, const char *> cases[] = {
        {"sub take 1", "#           ^\n! Unexpected end of line in input\n* -1\n"},
        {"sub take 1.5 2", "#          ^\n! Argument 1 should be of type '%d'\n* -1\n"},
        {"sub take 1 'a'", "#            ^\n! Argument 2 should be of type '%g'\n* -1\n"},
        {"sub take 1 verbose",
         "#            ^\n! Found an identifier when we were expecting arguments\n* -1\n"},
        {"sub take 1 2 verb", "#              ^\n! Qualifier verb not found.\n* -1\n"},
        {"sub take 1 2 'x' 3 4",
         "#                    ^\n! Unexpected character when reading qualifiers\n* -1\n"},
        {"sub take %nope 2", "#          ^\n! Undefined Variable 'nope'\n* -1\n"},
        {"sub take 1 2+%nope",
         "! Cannot find variable nope\n#            ^\n! Unknown character found in the arguments\n* -1\n"},
        {"quals piece 2", "#             ^\n! This qualifier takes an argument of type '%g'\n* -1\n"},
        {"quals whole 2.0", "#             ^\n! This qualifier takes an argument of type '%d'\n* -1\n"},
        {"sub", "#    ^\n! Line of input finished unexpectedly\n* -1\n"},
        {"sub 42", "#     ^\n! Expected a command name here\n* -1\n"},
        {"su", "# ^\n! Unexpected identifier, or non-existent command\n# Choices at this point are:\n#  sub "
               "quals real "
               "text again \n# Type partial command followed by '?' for more help\n* -1\n"},
        {"  ;", "! Syntax error in expression\n#   ^\n! Unexpected character in input\n* -1\n"},
    };
    for (const auto &[line, expected] : cases)
        EXPECT_EQ(reply(line), expected) << line;
}

TEST(interpreter, lists_and_helps) {
    EXPECT_EQ(reply("sub ?"), "# Choices at this point are:\n#            take takes values\n"
                              "# Type partial command and '?' for more help\n* -1\n");
    EXPECT_EQ(
        reply("sub take 1 ?"),
        "# The take command function is :\n# takes values\n# And expects arguments of the following types:\n"
        "# <int>     a\n# <real>    b\n# Optional arguments\n# <string>  s\n# <int>     n\n"
        "# Zero or more of the following qualifiers may appear after the arguments:\n"
        "# verbose              more\n# This command returns <int>    .\n* -1\n");
}

TEST(interpreter, qualifier_values) {
    EXPECT_EQ(reply("quals piece 2.5 whole 3 whole 4 plain"), "* 0\n");
    EXPECT_EQ(seen, "11 4 2.500000");
    EXPECT_EQ(reply("quals name '" + std::string(300, 'x') + "'"), "* 0\n");
    EXPECT_EQ(seen, "4 255");
    set_string_variable(0, "word", "PLAIN", true, vt_qualifier);
    EXPECT_EQ(reply("quals %word"), "* 0\n");
    EXPECT_EQ(seen, "8");
}

TEST(interpreter, prints_results_by_type_and_radix) {
    EXPECT_EQ(reply("real 2"), "* 2\n");
    EXPECT_EQ(reply("text 1"), "* \"word\"\n");
    EXPECT_EQ(reply("text 0"), "* (null)\n");
    EXPECT_EQ(reply("42"), "* 42\n");
    EXPECT_EQ(reply("1.5*2"), "* 3\n");
    EXPECT_EQ(reply("'a'+'b'"), "* \"ab\"\n");
    EXPECT_EQ(reply(" \t "), "");
    session_capture session;
    pt_set_root(root);
    sv_set_radix(session.cn, 16);
    user_service(session.cn, "255", 1, nullptr, nullptr);
    sv_set_radix(session.cn, 8);
    user_service(session.cn, "0-1", 1, nullptr, nullptr);
    sv_set_radix(session.cn, 2);
    user_service(session.cn, "5", 1, nullptr, nullptr);
    EXPECT_EQ(session.replies(), "* $ff\n* $ffffffff\n* #00000000000000000000000000000101\n");
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

TEST(interpreter, bounds_lines_within_lines) {
    set_string_variable(0, "self", "again %self", true);
    const std::string replies = reply("again %self");
    EXPECT_TRUE(replies.starts_with("! Commands nested deeper than 100 levels\n* -1\n")) << replies;
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
