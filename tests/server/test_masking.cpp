// What logs and echoes may show.
#include "server/logs.h"

#include <gtest/gtest.h>

namespace kestrel {
namespace {

TEST(masking, hides_the_quoted_value_after_the_word) {
    const std::pair<const char *, const char *> cases[] = {
        {"login user 'me' password 'geheim' now 'here'", "login user 'me' password '******' now 'here'"},
        {"PassWord \"a b'c\" 'd'", "PassWord \"*****\" 'd'"},
        {"enc-password 'x'", "enc-password '*'"},
        {"set-string 'password' 'abc'", "set-string 'password' '***'"},
        {"password='abc'", "password='***'"},
        {"password   'ab'+\"cd\" 'e'", "password   '**'+\"**\" 'e'"},
        {"password (string)'ab'", "password (string)'**'"},
        {"password 'a' password 'b'", "password '*' password '*'"},
        {"password 'unfinished", "password '**********"},
        {"password ''", "password ''"},
        {"password %pw 'x'", "password %pw 'x'"},
        {"passwords 'x' my_password 'y'", "passwords 'x' my_password 'y'"},
        {"password", "password"},
        {"passwor", "passwor"},
        {"", ""},
    };
    for (const auto &[line, shown] : cases)
        EXPECT_EQ(sv_masked(line), shown);
}

} // namespace
} // namespace kestrel
