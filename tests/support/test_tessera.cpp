// The detector image container, written and read back; other programs read it in the session tests.
#include "support/tessera.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <numeric>
#include <vector>

using namespace kestrel;

namespace {

std::string scratch(const char *name) {
    return testing::TempDir() + "kestrel_" + name;
}

} // namespace

TEST(tessera, what_is_written_in_uneven_pieces_reads_back_by_the_box) {
    const std::string name = scratch("image.h5");
    std::vector<float> data(5 * 4 * 3);
    std::iota(data.begin(), data.end(), 0.5F);
    tessera_writer writer;
    ASSERT_TRUE(writer.open(name, tessera_type::float32, {5, 4, 3}, "A title", {{"detector", "no. 7"}}));
    EXPECT_FALSE(writer.write(data.data(), 7)) << "not whole lines";
    EXPECT_TRUE(writer.write(data.data(), 35)); // seven lines: over the end of a frame
    EXPECT_TRUE(writer.write(data.data() + 35, 25));
    EXPECT_FALSE(writer.write(data.data(), 5)) << "past the end";
    EXPECT_TRUE(writer.close());

    tessera_reader reader;
    std::string error;
    ASSERT_TRUE(reader.open(name, "", error)) << error;
    EXPECT_EQ(reader.shape().nx, 5);
    EXPECT_EQ(reader.shape().ny, 4);
    EXPECT_EQ(reader.shape().nt, 3);
    EXPECT_EQ(reader.type(), el_float);
    std::vector<float> box(2 * 2 * 2);
    ASSERT_TRUE(reader.read(box.data(), 3, 1, 1, 2, 2, 2));
    EXPECT_EQ(box, (std::vector<float>{28.5, 29.5, 33.5, 34.5, 48.5, 49.5, 53.5, 54.5}));
}
