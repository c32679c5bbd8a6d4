// Argument formats: what compiles to what, where a bad one is refused, and which handlers fit.
#include "parser/format.h"
#include "parser/interpreter.h"
#include "parser/qualifiers.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace {

std::unique_ptr<_pt_args> compile(const char *format) {
    format_error error;
    return format_compile(format, error);
}

int two_ints(int, int, int, int) {
    return 0;
}
double real_and_text(int, int, double, const char *) {
    return 0;
}
int rest_of_line(int, int, const char *, std::span<const pt_value>) {
    return 0;
}
pt_string any_value(int, int, const pt_value &) {
    return {};
}

} // namespace

TEST(format, names_the_place_of_a_fault) {
    const std::pair<const char *, std::size_t> cases[] = {
        {"%d + %d + %d", 8}, // a second plus
        {"%x", 1},           // an unknown type
        {"%d a %q", 6},      // %q is a return type only
        {"%d = %d x", 8},    // something after the return type
        {"%d = ", 5},        {"a_b c$", 5}, {"2nd", 0}, {"%d a %d %d", 8},
    };
    for (const auto &[format, position] : cases) {
        format_error error;
        EXPECT_FALSE(format_compile(format, error)) << format;
        EXPECT_EQ(error.position, position) << format;
    }
    std::string many;
    for (int i = 0; i < 33; ++i)
        many += "q" + std::to_string(i) + " ";
    EXPECT_FALSE(compile(many.c_str())) << "a mask has 32 bits";
}

TEST(format, fits_the_handlers_own_signature) {
    EXPECT_TRUE(format_fits(*compile("%d %d = %d"), pt_bind<two_ints>()));
    EXPECT_TRUE(format_fits(*compile("%d %d q"), pt_bind<two_ints>()));
    EXPECT_FALSE(format_fits(*compile("%d = %d"), pt_bind<two_ints>()));
    EXPECT_FALSE(format_fits(*compile("%d %d %d = %d"), pt_bind<two_ints>()));
    EXPECT_FALSE(format_fits(*compile("%d %g = %d"), pt_bind<two_ints>()));
    EXPECT_FALSE(format_fits(*compile("%d %d = %g"), pt_bind<two_ints>()));
    EXPECT_TRUE(format_fits(*compile("%f %s = %g"), pt_bind<real_and_text>()));
    EXPECT_TRUE(format_fits(*compile("%s + %v %v %v = %d"), pt_bind<rest_of_line>()));
    EXPECT_TRUE(format_fits(*compile("%v = %s"), pt_bind<any_value>()));
    EXPECT_FALSE(format_fits(*compile("%v = %d"), pt_bind<any_value>()));
}

namespace {

constexpr pt_format view_format("%s + %d fit %d wrapped over %g to %s = %d");

constexpr pt_qualifiers<view_format>::choice<char> letters[] = {{"over", 'o'}, {"wrapped", 'w'}, {"to", 't'}};

std::string seen;

int show(int quals, int, const char *, int) {
    const pt_qualifiers<view_format> q(quals);
    seen = std::to_string(q.number("fit", -1)) + " " + std::to_string(q.given("wrapped")) + " " +
           std::to_string(q.real("over", 2.0)) + " " + q.text("to", "nowhere") + " " +
           std::to_string(q.count({"fit", "to"})) + " " + std::to_string(q.which({"to", "wrapped", "fit"})) +
           " " + q.first(letters).value_or('-') + q.only(letters).value_or('-');
    return 0;
}

std::string seen_by_view(const char *line) {
    static constinit const PARSE_TREE table[] = {pt_command<show>("view", view_format, "", ""), pt_end()};
    const PARSE_TREE *before = pt_root();
    pt_set_root(table);
    seen.clear();
    user_service(-1, line, 0, nullptr, nullptr);
    pt_set_root(before);
    return seen;
}

} // namespace

TEST(qualifiers, are_found_by_their_names) {
    EXPECT_EQ(seen_by_view("view 'a' to 'b' fit 3"), "3 0 2.000000 b 2 0 tt");
    EXPECT_EQ(seen_by_view("view 'a' 1 wrapped over 0.5"), "-1 1 0.500000 nowhere 0 1 o-");
    EXPECT_EQ(seen_by_view("view 'a'"), "-1 0 2.000000 nowhere 0 -1 --");
}
