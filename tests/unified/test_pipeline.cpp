// The read pipeline in every way that a box can be cut, into a destination that keeps the bytes.
#include "tests/helpers/session_capture.h"
#include "unified/convert.h"
#include "unified/read_pipeline.h"

#include <climits>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

using namespace kestrel;

namespace {

constexpr int cn = session_capture::cn;
constexpr int nx = 7, ny = 5, nt = 4;
std::vector<std::uint32_t> image;
std::string sent;

int image_read(int, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    auto *out = static_cast<std::uint32_t *>(buffer);
    for (int ti = t; ti < t + dt; ++ti)
        for (int yi = y; yi < y + dy; ++yi)
            for (int xi = x; xi < x + dx; ++xi)
                *out++ = image[static_cast<std::size_t>((ti * ny + yi) * nx + xi)];
    return 0;
}

int image_place(int, unified_place *place) {
    *place = {
        reinterpret_cast<const std::byte *>(image.data()), nx * 4, nx * ny * 4, nx, ny, nt, image.data()};
    return 0;
}

class keeping_destination final : public output_destination {
  public:
    int init(UnifOutput &, const _unif_format &) override { return 0; }
    int write(UnifOutput &, const std::byte *bytes, std::size_t count) override {
        sent.append(reinterpret_cast<const char *>(bytes), count);
        return 0;
    }
    int term(UnifOutput &, bool) override { return 0; }
};

class counting_destination final : public output_destination {
  public:
    explicit counting_destination(long long &taken) : taken_(taken) {}
    int init(UnifOutput &, const _unif_format &) override { return 0; }
    int write(UnifOutput &, const std::byte *, std::size_t count) override {
        taken_ += static_cast<long long>(count);
        return 0;
    }
    int term(UnifOutput &, bool) override { return 0; }

  private:
    long long &taken_;
};

class pipeline : public testing::Test {
  protected:
    pipeline() {
        image.resize(nx * ny * nt);
        for (std::size_t i = 0; i < image.size(); ++i)
            image[i] = static_cast<std::uint32_t>(i * i);
    }
    ~pipeline() override { unified_close_all(cn); }

    int read(bool in_place, const unified_box &box, void (*form)(_unif_format &), std::size_t piece,
             const scaling &scale = {}, int swap = 0) {
        unified_source source = {.read = image_read};
        source.place = in_place ? image_place : nullptr;
        read_request request;
        request.handle = unified_open(cn, 0, nx, ny, nt, el_long, "image", source);
        request.box = box;
        request.scale = scale;
        request.swap_bytes = swap;
        _unif_format format;
        form(format);
        UnifOutput output;
        output.cn = cn;
        output.destination = std::make_unique<keeping_destination>();
        sent.clear();
        const int result = run_read(cn, request, format, output, piece);
        unified_close(request.handle);
        replies_ = session_.replies();
        return result;
    }

    session_capture session_;
    std::string replies_; // of the last read
};

std::string bytes_of(const unified_box &b) {
    std::string bytes;
    for (int t = b.t; t < b.t + b.dt; ++t)
        for (int y = b.y; y < b.y + b.dy; ++y)
            bytes.append(
                reinterpret_cast<const char *>(&image[static_cast<std::size_t>((t * ny + y) * nx + b.x)]),
                static_cast<std::size_t>(b.dx) * 4);
    return bytes;
}

constexpr unified_box boxes[] = {{0, 0, 0, nx, ny, nt}, {1, 1, 1, 3, 3, 2},  {0, 2, 0, nx, 2, nt},
                                 {6, 4, 3, 1, 1, 1},    {0, 0, 1, nx, 1, 1}, {2, 0, 0, 1, 1, nt},
                                 {2, 0, 0, 1, ny, nt},  {3, 0, 2, 1, ny, 1}};

} // namespace

TEST_F(pipeline, every_box_leaves_whole_however_it_is_cut) {
    for (const bool in_place : {true, false})
        for (const auto &box : boxes)
            for (const std::size_t piece : {4U, 12U, 29U, 140U, 561U, 4096U}) {
                ASSERT_EQ(read(in_place, box, raw_setup_format, piece), 0);
                ASSERT_EQ(sent, bytes_of(box)) << in_place << " " << piece << replies_;
            }
}

TEST_F(pipeline, ascii_rows_end_where_rows_end_however_they_are_cut) {
    const unified_box line{0, 0, 1, nx, 1, 1};
    for (const std::size_t piece : {4U, 8U, 4096U}) {
        ASSERT_EQ(read(false, line, ascii_setup_format, piece), 0);
        EXPECT_EQ(sent, "1225\t1296\t1369\t1444\t1521\t1600\t1681\t\n");
    }
    ASSERT_EQ(read(true, {1, 1, 0, 2, 2, 2}, ascii_setup_format, 8), 0);
    EXPECT_EQ(sent, "64\t81\t\n225\t256\t\n1849\t1936\t\n2500\t2601\t\n");
}

TEST_F(pipeline, columns_are_the_rows_turned) {
    const auto columns = [](_unif_format &f) { ascii_col_setup_format(f, {true, 1.0, 0.25}); };
    for (const std::size_t piece : {16U, 32U, 4096U})
        for (const bool in_place : {true, false}) {
            ASSERT_EQ(read(in_place, {1, 1, 0, 3, 2, 2}, columns, piece), 0);
            EXPECT_EQ(sent,
                      "1 64\t225\t1849\t2500\t\n1.25 81\t256\t1936\t2601\t\n1.5 100\t289\t2025\t2704\t\n");
        }
}

TEST_F(pipeline, scaling_conversion_and_byte_order_work_together) {
    ASSERT_EQ(read(true, {2, 0, 0, 2, 1, 1}, float32_setup_format, 4096, {true, 0.5, 1.0}, 1), 0);
    EXPECT_EQ(sent, std::string("\x40\x40\0\0\x40\xb0\0\0", 8)); // 3.0, 5.5, high byte first
    EXPECT_NE(replies_.find("# Calling processing, do_scaling=1, do_convert=1, swap_bytes=1\n"),
              std::string::npos);
}

TEST_F(pipeline, pieces_are_announced) {
    ASSERT_EQ(read(false, {0, 0, 0, nx, ny, nt}, raw_setup_format, 2 * nx * 4), 0);
    const std::string replies = replies_;
    EXPECT_NE(replies.find("# Reading image in pieces.\n# Dimension 2, blk_dx=7, blk_dy 2, blk_dt=1.\n"),
              std::string::npos)
        << replies;
    EXPECT_NE(replies.find("@ 20 20 'Outputing Data'\n"), std::string::npos);
}

TEST_F(pipeline, a_line_of_the_largest_width_is_read_to_its_end) {
    constexpr std::size_t piece = 256 * 1024 * 1024;
    long long taken = 0;
    const unified_source source = {.read = [](int, void *, int, int, int, int, int, int) { return 0; }};
    read_request request;
    request.handle = unified_open(cn, 0, INT_MAX, 1, 1, el_byte, "line", source);
    request.box = {0, 0, 0, INT_MAX, 1, 1};
    _unif_format format;
    raw_setup_format(format);
    UnifOutput output;
    output.cn = cn;
    output.destination = std::make_unique<counting_destination>(taken);
    EXPECT_EQ(run_read(cn, request, format, output, piece), 0);
    EXPECT_EQ(taken, INT_MAX);
    const std::string replies = session_.replies();
    EXPECT_NE(replies.find("@ 268435456 2147483647 'Outputing Data'\n"), std::string::npos)
        << "elements of a single line are counted\n"
        << replies;
    EXPECT_NE(replies.find("@ 2147483647 2147483647 'Outputing Data'\n"), std::string::npos);
}
