// Expressions: what a text compiles to, and what it evaluates to, with the messages of every refusal.
#include "parser/expression.h"
#include "parser/scanner.h"
#include "parser/variables.h"
#include "tests/helpers/session_capture.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace {

std::string dump(std::string_view text) {
    program p;
    std::string message;
    std::size_t at = 0;
    if (!expression_compile(text, at, p, message))
        return "error: " + message;
    if (at != text.size())
        return "stopped at " + std::to_string(at);
    return expression_dump(p);
}

// The value as the result line would show it, or the session's error lines.
std::string value(const std::string &text) {
    session_capture session;
    program p;
    std::string message;
    std::size_t at = 0;
    if (!expression_compile(text, at, p, message) || at != text.size())
        return "syntax: " + message;
    const PE_Value v = expression_run(session.cn, p);
    char number[40];
    switch (v.type) {
    case pe_int:
        return std::to_string(v.IntValue);
    case pe_double:
        std::snprintf(number, sizeof number, "%g", v.DoubleValue);
        return std::string("r") + number;
    case pe_string:
        return "'" + v.StringValue + "'";
    case pe_qualifier:
        return "q" + v.StringValue;
    default:
        return session.replies();
    }
}

} // namespace

TEST(expression, operators_bind_as_listed) {
    const std::pair<const char *, const char *> cases[] = {
        {"1+2*3", "int:1 int:2 int:3 mult add"},
        {"1-2-3", "int:1 int:2 sub int:3 sub"},
        {"1+2<<3", "int:1 int:2 add int:3 shl"},
        {"1<2==3>4", "int:1 int:2 lt int:3 int:4 gt eq"},
        {"1&2==3", "int:1 int:2 int:3 eq and"},
        {"1|2^3&4", "int:1 int:2 int:3 int:4 and xor or"},
        {"1||2&&3|4", "int:1 int:2 int:3 int:4 or land lor"},
        {"-1+2", "int:1 int:2 add neg"},
        {"2*-3+4", "int:2 int:3 int:4 add neg mult"},
        {"!1?2:3", "int:1 jz:4 int:2 jump:5 int:3 not"},
        {"1?2:0?4:5", "int:1 jz:4 int:2 jump:9 int:0 jz:8 int:4 jump:9 int:5"},
        {"(int)2.5+1", "double:2.500000 cast:1 int:1 add"},
        {"(1+2)*3", "int:1 int:2 add int:3 mult"},
        {"(a)-5", "load:a int:5 sub"},
        {"(a)5", "int:5 badcast:a"},
        {"1+a=b=2", "int:1 int:2 store:b store:a add"},
        {"1+%1.x", "int:1 load:1.x add"},
        {"sin(a)*2", "load:a call:sin int:2 mult"},
        {"$ffFF+#101", "int:65535 int:5 add"},
        {"$FFFFFFFF", "int:-1"},
        {"1>>2", "int:1 int:2 shr"},
        {"1>=2!=3", "int:1 int:2 ge int:3 ne"},
    };
    for (const auto &[text, code] : cases)
        EXPECT_EQ(dump(text), code) << text;
}

TEST(expression, faults_of_syntax_are_named) {
    for (const char *text : {"1+", "(1", "'abc", "1?2", "%", "$", "#2", "()", "sin(1", "(int)", "*2", "1+*",
                             "2147483648", "$100000000", "1e999", "(int'%d')1", "%+1"})
        EXPECT_TRUE(dump(text).starts_with("error: ")) << text << " gave " << dump(text);
    EXPECT_TRUE(dump(std::string(400, '(') + "1" + std::string(400, ')')).starts_with("error: "));
    EXPECT_TRUE(dump(std::string(100000, '-') + "1").starts_with("error: "));
    EXPECT_FALSE(dump(std::string(90, '(') + "1" + std::string(90, ')')).starts_with("error: "));
    std::string chain = "1";
    for (int i = 0; i < 100000; ++i)
        chain += "+1";
    EXPECT_EQ(value(chain), "100001") << "a long chain needs no depth";
}

TEST(expression, values) {
    const std::pair<const char *, const char *> cases[] = {
        {"7/2", "3"},
        {"7/2.0", "r3.5"},
        {"1+2.5", "r3.5"},
        {"'ab'+\"cd\"", "'abcd'"},
        {"'a'=='a'", "1"},
        {"'a'!='a'", "0"},
        {"1==1.0", "1"},
        {"1&&0", "0"},
        {"2||0", "1"},
        {"~0", "-1"},
        {"!5", "0"},
        {"-2.5", "r-2.5"},
        {"2147483647+1", "-2147483648"},
        {"1<<31", "-2147483648"},
        {"(0-8)>>1", "-4"},
        {"1.0/0", "rinf"},
        {"log2(8)", "3"},
        {"log2(8.0)", "r3"},
        {"log2(6)", "3"},
        {"cos(0)", "r1"},
        {"(int)'1234'", "1234"},
        {"(int)' 12 '", "12"},
        {"(int)2.9", "2"},
        {"(int)(0-2.9)", "-2"},
        {"(double)'1.5'", "r1.5"},
        {"(string)1234", "'1234'"},
        {"(string'%5.2f')1.5", "' 1.50'"},
        {"(string'%04d')7", "'0007'"},
        {"(qualifier)'long'", "qlong"},
        {"(string)(qualifier)'long'", "'long'"},
        {"1?2:1/0", "2"},
        {"0?1/0:3", "3"},
        {"1+(v=4)*2+v", "13"},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(value(text), expected) << text;
}

TEST(expression, refusals) {
    const std::pair<const char *, const char *> cases[] = {
        {"'a'-'b'", "! Cannot sub type 4 and 4\n"},
        {"'a'+1", "! Cannot add type 4 and 1\n"},
        {"1.0*'a'", "! Cannot mult type 2 and 4\n"},
        {"'a'/2", "! Cannot div type 4 and 1\n"},
        {"'a'<'b'", "! Cannot compare type 4 and 4\n"},
        {"'a'==1", "! Cannot compare type 4 and 1\n"},
        {"1.0&&1", "! Cannot perfrom integer only operation on type 2 and 1\n"},
        {"1<<'a'", "! Cannot perfrom integer only operation on type 1 and 4\n"},
        {"1.0?2:3", "! Control type for ternay must be integer, not 2\n"},
        {"-'a'", "! Cannot negate type 4\n"},
        {"1+nothing", "! Cannot find variable nothing\n"},
        {"nofunc(1)", "! Cannot find function nofunc\n"},
        {"sin('a')", "! Illegal Function argument type 4 passed to function 'sin'\n"},
        {"log2(0)", "! Illegal Function argument 0 passed to function 'log2'\n"},
        {"(int)'abc'", "! Cannot convert type 4 to int\n"},
        {"(int)'12abc'", "! Cannot convert type 4 to int\n"},
        {"(int)1e10", "! Cannot convert type 2 to int\n"},
        {"(double)'x'", "! Cannot convert type 4 to double\n"},
        {"(qualifier)1", "! Cannot convert type 1 to qualifier\n"},
        {"(real)1", "! Cannot recognise cast (real), expect (int), (double) or (string)\n"},
        {"(string'%d')'abc'", "! ERROR in cast to string with format string: Cannot convert string to string "
                              "via a double format\n"},
        {"(string'%d.')1",
         "! ERROR in cast to string with format string. Expected last character of format string "
         "to be diouxX eEfFgG or s not '.'\n"},
        {"5/0", "! Integer division by zero\n"},
        {"1<<32", "! Shift count should be 0..31 not 32\n"},
        {"1>>(0-1)", "! Shift count should be 0..31 not -1\n"},
        {"$80000000/(-1)", "! Integer quotient does not fit in 32 bits\n"},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(value(text), expected) << text;
}

TEST(expression, a_string_cannot_grow_without_end) {
    std::string text = "s='0123456789'";
    EXPECT_EQ(value(text), "'0123456789'");
    std::string last;
    for (int i = 0; i < 20; ++i)
        last = value("s=%s+%s");
    EXPECT_EQ(last, "! String longer than 1048576 characters\n");
}
