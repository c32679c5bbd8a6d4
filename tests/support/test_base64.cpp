#include "support/base64.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace {

std::string encode(std::string_view text) {
    return base64_encode({reinterpret_cast<const std::uint8_t *>(text.data()), text.size()});
}

} // namespace

TEST(base64, encodes_and_decodes_every_padding) {
    const std::pair<const char *, const char *> cases[] = {
        {"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xff\xfe", "//4="}};
    for (const auto &[plain, coded] : cases) {
        EXPECT_EQ(encode(plain), coded);
        const auto bytes = base64_decode(coded);
        ASSERT_TRUE(bytes) << coded;
        EXPECT_EQ(std::string(bytes->begin(), bytes->end()), plain);
    }
}

TEST(base64, refuses_what_is_no_base64) {
    for (const char *text : {"Zg=", "Zg", "Z===", "Zm9v!A==", "Zg==Zg==", "Z g="})
        EXPECT_FALSE(base64_decode(text)) << text;
}
