// Expressions: what a text compiles to; what it evaluates to is asked of the running server.
#include "parser/expression.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace {

std::string dump(std::string_view text) {
    std::vector<instruction> code;
    std::string message;
    std::size_t at = 0;
    if (!expression_compile(text, at, code, message))
        return "error: " + message;
    if (at != text.size())
        return "stopped at " + std::to_string(at);
    return expression_dump({text, code});
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
        {"(a)-5", "loadcast:a int:5 sub"},
        {"(a)~5", "int:5 compl badcast:a"},
        {"(a)!=5", "load:a int:5 ne"},
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
    for (const char *text : {"-2147483649", "1e400", "1+", "(1", "'abc", "1?2", "%", "$", "#2", "()", "sin(1",
                             "(int)", "*2", "1+*", "2147483648", "$100000000", "1e999", "(int'%d')1", "%+1"})
        EXPECT_TRUE(dump(text).starts_with("error: ")) << text << " gave " << dump(text);
    EXPECT_TRUE(dump(std::string(200, '(') + "1" + std::string(200, ')')).starts_with("error: "));
    EXPECT_TRUE(dump(std::string(100000, '-') + "1").starts_with("error: "));
    EXPECT_FALSE(dump(std::string(199, '(') + "1" + std::string(199, ')')).starts_with("error: "));
    std::string chain = "1";
    for (int i = 0; i < 100000; ++i)
        chain += "+1";
    EXPECT_FALSE(dump(chain).starts_with("error: ")) << "a long chain needs no depth";
}

TEST(expression, of_integers_gives_the_same_without_types) {
    const auto run = [](std::string_view text, PE_Value &general) {
        std::vector<instruction> code;
        std::string message;
        std::size_t at = 0;
        EXPECT_TRUE(expression_compile(text, at, code, message)) << text;
        general = expression_run(-1, {text, code});
        return expression_run_integers({text, code});
    };
    PE_Value general;
    for (const char *text : {"1+2*3", "-2147483647-1", "2147483647+1", "65536*65536*3", "~5&12|3^9", "!0?4:5",
                             "0?1:2", "1<2&&3>=4||0!=1"}) {
        EXPECT_EQ(run(text, general), general.IntValue) << text;
        EXPECT_EQ(general.type, pe_int) << text;
    }
    testing::internal::CaptureStdout(); // of errors
    for (const char *text :
         {"1/0", "4/2", "1<<2", "1.5", "'a'", "1+2.0", "sin(1)", "a=3", "%nobody", "(double)1",
          "1+(2+(3+(4+(5+(6+(7+(8+(9+(10+(11+(12+(13+(14+(15+(16+17)))))))))))))))"})
        EXPECT_FALSE(run(text, general)) << text;
    testing::internal::GetCapturedStdout();
}
