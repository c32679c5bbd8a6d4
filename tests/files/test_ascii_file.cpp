// Text files of numbers, good and bad, and the index file's text.
#include "files/ascii_file.h"
#include "files/file_index.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>

using namespace kestrel;

namespace {

struct result {
    bool good;
    ascii_table table;
    std::string error;
};

// Reads the text in blocks of one, seven and all bytes: the result must not depend on it.
result parse(const std::string &text, bool id_row = false) {
    result last{};
    for (const std::size_t block : {std::size_t{1}, std::size_t{7}, text.size() + 1}) {
        std::size_t at = 0;
        result r{};
        r.good = read_ascii(
            [&](std::span<char> to) {
                const std::size_t n = std::min({block, to.size(), text.size() - at});
                std::memcpy(to.data(), text.data() + at, n);
                at += n;
                return static_cast<long>(n);
            },
            id_row, r.table, r.error);
        if (block > 1) {
            EXPECT_EQ(r.good, last.good) << text;
            EXPECT_EQ(r.error, last.error) << text;
        }
        last = r;
    }
    return last;
}

} // namespace

TEST(ascii_file, takes_every_separator_comments_and_line_ends) {
    const auto r = parse("# energy counts\n1, 2\t3\r\n\n  +4 5e1,6.25# tail\n-7 .5 nan");
    ASSERT_TRUE(r.good) << r.error;
    EXPECT_EQ(r.table.nx, 3);
    EXPECT_EQ(r.table.ny, 3);
    EXPECT_EQ(std::vector<double>(r.table.values.begin(), r.table.values.end() - 1),
              (std::vector<double>{1, 2, 3, 4, 50, 6.25, -7, 0.5}));
    EXPECT_TRUE(std::isnan(r.table.values.back()));
    EXPECT_TRUE(parse("1\t2\t\n3\t4\t\n").good) << "as the ASCII rows form writes them";
}

TEST(ascii_file, an_identification_row_counts_as_a_row) {
    auto r = parse("1 2 3\n4 5 6\n7 8 9\n", true);
    EXPECT_EQ(r.table.ny, 3);
    r = parse("ch0 ch1 2\n4 5 6\n", true);
    EXPECT_EQ(r.table.values, (std::vector<double>{0, 0, 2, 4, 5, 6}));
    r = parse("sample\n4 5 6\n", true);
    EXPECT_EQ(r.table.values, (std::vector<double>{0, 0, 0, 4, 5, 6}));
    r = parse("1 2\n", true);
    EXPECT_EQ(r.table.nx * 10 + r.table.ny, 21);
}

TEST(ascii_file, faults_name_the_line_and_what_stands_there) {
    const std::pair<const char *, const char *> cases[] = {
        {"", "no row of numbers"},
        {"# only\n\n", "no row of numbers"},
        {"1 2\n3\n", "line 2: 1 values, the rows before have 2"},
        {"1 2\n\n# x\n3 4 5\n", "line 4: 3 values, the rows before have 2"},
        {"1 2x\n", "line 1: '2x' is not a number"},
        {"1 0x10\n", "line 1: '0x10' is not a number"},
        {"1,,2\n", "line 1: nothing between two commas"},
        {",1\n", "line 1: nothing between two commas"},
        {"1e400\n", "line 1: '1e400' is out of range"},
        {"+-1\n", "line 1: '+-1' is not a number"},
        {"\x01\xff\n", "line 1: '?"
                       "?' is not a number"},
    };
    for (const auto &[text, error] : cases) {
        const auto r = parse(text);
        EXPECT_FALSE(r.good) << text;
        EXPECT_EQ(r.error, error);
    }
}

TEST(file_index, only_a_number_is_an_index) {
    EXPECT_EQ(parse_index("0"), 0);
    EXPECT_EQ(parse_index("41\n"), 41);
    EXPECT_EQ(parse_index("2147483647\n"), 2147483647);
    for (const char *text : {"", "\n", "-1", " 1", "1 ", "1\n\n", "2147483648", "1x", "+1"})
        EXPECT_FALSE(parse_index(text)) << text;
}
