#include "parser/text_format.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace {

std::string formatted(std::string_view format, std::vector<PE_Value> values, std::size_t max = 1000) {
    std::string error;
    const auto text = format_text(format, values, max, error);
    return text ? *text : "error: " + error;
}

} // namespace

TEST(text_format, prints_as_printf_does) {
    const PE_Value seven = PE_Value::of(7), half = PE_Value::of(2.5), word = PE_Value::of(std::string("ab"));
    EXPECT_EQ(formatted("%d-%d", {seven, half}), "7-2");
    EXPECT_EQ(formatted("%5.2f|%-4d|%04x|%%|%ld", {seven, seven, PE_Value::of(255), seven}),
              " 7.00|7   |00ff|%|7");
    EXPECT_EQ(formatted("%s|%5s|%-5s|%.1s", {word, word, word, word}), "ab|   ab|ab   |a");
    EXPECT_EQ(formatted("no values", {}), "no values");
    EXPECT_EQ(formatted("%d", {seven, seven}), "7") << "more values than conversions";
    EXPECT_EQ(formatted("%c%c", {PE_Value::of(65), PE_Value::of(66)}), "AB");
    EXPECT_EQ(formatted("%s", {word}, 1), "a");
}

TEST(text_format, refuses_what_would_not_be_safe) {
    const PE_Value one = PE_Value::of(1), word = PE_Value::of(std::string("ab"));
    for (const char *format : {"%n", "%*d", "%q", "%", "%5", "%1234d", "%.1234f", "%p"})
        EXPECT_TRUE(formatted(format, {one, one}).starts_with("error: ")) << format;
    EXPECT_TRUE(formatted("%s", {one}).starts_with("error: "));
    EXPECT_TRUE(formatted("%d", {word}).starts_with("error: "));
    EXPECT_TRUE(formatted("%d %d", {one}).starts_with("error: "));
    EXPECT_TRUE(formatted("%d", {PE_Value::of(3e9)}).starts_with("error: "));
}
