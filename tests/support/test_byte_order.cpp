#include "support/byte_order.h"
#include "support/element.h"

#include <gtest/gtest.h>
#include <string>

using namespace kestrel;

TEST(byte_order, swaps_every_element_of_every_size_and_no_byte_more) {
    const struct {
        int type;
        const char *swapped;
    } cases[] = {{el_byte, "ABCDEFGHIJKLMNOPQRSTUVWX!"},  {el_short, "BADCFEHGJILKNMPORQTSVUXW!"},
                 {el_long, "DCBAHGFELKJIPONMTSRQXWVU!"},  {el_float, "DCBAHGFELKJIPONMTSRQXWVU!"},
                 {el_int48, "FEDCBALKJIHGRQPONMXWVUTS!"}, {el_double, "HGFEDCBAPONMLKJIXWVUTSRQ!"},
                 {el_int64, "HGFEDCBAPONMLKJIXWVUTSRQ!"}};
    for (const auto &c : cases) {
        std::string bytes = "ABCDEFGHIJKLMNOPQRSTUVWX!";
        swap_elements(bytes.data(), 24 / static_cast<std::size_t>(element_size(c.type)), c.type);
        EXPECT_EQ(bytes, c.swapped) << element_names[c.type];
    }
    std::string parts = "ABCDEFGHIJKL";
    unif_swab_i4(parts.data(), 2);
    EXPECT_EQ(parts, "BAFEDCHGLKJI");
}
