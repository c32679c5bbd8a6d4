// Test patterns: images whose values are known, and grow with the time that they are enabled.
#include "parser/qualifiers.h"
#include "server/output.h"
#include "support/element.h"
#include "unified/commands.h"
#include "unified/convert.h"
#include "unified/handles/handles.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>

namespace kestrel {

namespace {

using clock_type = std::chrono::steady_clock;

enum class image_state { fresh, counting, stopped };
enum class pattern { ramp, egg, quadrants };

struct test_image {
    bool open = false;
    int handle = -1;
    int type = el_none;
    int nx = 0, ny = 0;
    pattern shape = pattern::ramp;
    image_state state = image_state::fresh;
    clock_type::time_point start;
    double accumulated = 0.0; // seconds
};

std::array<test_image, 20> images;
constexpr int value_mask = 0x7fffff;
constexpr double growth = 0.1; // of the factor, a second

double since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

test_image *image_of(int path) {
    if (path >= 0 && path < static_cast<int>(images.size()) && images[static_cast<std::size_t>(path)].open)
        return &images[static_cast<std::size_t>(path)];
    std::fprintf(stderr, "ERROR, bad path %d\n", path);
    return nullptr;
}

double factor_of(const test_image &image) {
    switch (image.state) {
    case image_state::counting:
        return growth * (since(image.start) + image.accumulated);
    case image_state::stopped:
        return growth * image.accumulated;
    default:
        return 1.0;
    }
}

// ---- patterns, before the factor

double ramp(int x, int y, int t) {
    const long long value = x + 2LL * y + 3LL * t;
    return static_cast<double>(value & value_mask);
}

// A peak of height 1000 + 100 t in the middle, an egg in outline: Gaussian, with widths of a quarter of the
// image, growing toward high y by a third and shrinking toward low y by as much.
double egg(const test_image &image, int x, int y, int t) {
    const double u = (x + 0.5 - image.nx / 2.0) / (image.nx / 4.0);
    const double v = (y + 0.5 - image.ny / 2.0) / (image.ny / 4.0);
    const double width = 1.0 + v / 6.0;
    const double across = width > 0.1 ? u / width : u / 0.1;
    return (1000.0 + 100.0 * t) * std::exp(-0.5 * (across * across + v * v));
}

// Four quadrants of 100, 200, 300 and 400 (low y: low x, high x; high y: low x, high x), plus t.
double quadrants(const test_image &image, int x, int y, int t) {
    return 100.0 * (1 + (2 * x >= image.nx ? 1 : 0) + (2 * y >= image.ny ? 2 : 0)) + t;
}

double value_of(const test_image &image, int x, int y, int t) {
    switch (image.shape) {
    case pattern::egg:
        return egg(image, x, y, t);
    case pattern::quadrants:
        return quadrants(image, x, y, t);
    default:
        return ramp(x, y, t);
    }
}

// ---- callbacks

int test_read(int path, void *buffer, int x, int y, int t, int dx, int dy, int dt) {
    const test_image *image = image_of(path);
    if (image == nullptr)
        return -1;
    const double factor = factor_of(*image);
    auto *out = static_cast<std::byte *>(buffer);
    with_element_type(image->type, [&](auto element) {
        using T = decltype(element);
        if constexpr (!std::is_same_v<T, int48>) {
            std::size_t i = 0;
            for (int ti = t; ti < t + dt; ++ti)
                for (int yi = y; yi < y + dy; ++yi)
                    for (int xi = x; xi < x + dx; ++xi)
                        store_element(out, i++, narrow<T>(value_of(*image, xi, yi, ti) * factor));
        }
    });
    return 0;
}

void test_destroy(int path, int) {
    if (test_image *image = image_of(path))
        *image = {};
}

int test_enable(int path) {
    test_image *image = image_of(path);
    if (image == nullptr)
        return -1;
    if (image->state == image_state::counting)
        return 0;
    if (image->state == image_state::fresh)
        image->accumulated = 0.0;
    image->start = clock_type::now();
    image->state = image_state::counting;
    return 0;
}

int test_disable(int path) {
    test_image *image = image_of(path);
    if (image == nullptr)
        return -1;
    if (image->state == image_state::fresh) {
        image->accumulated = 0.0;
        image->start = clock_type::now();
    } else if (image->state == image_state::counting) {
        image->accumulated += since(image->start);
    }
    image->state = image_state::stopped;
    return 0;
}

int test_clear(int path, int, int, int, int, int, int) {
    test_image *image = image_of(path);
    if (image == nullptr)
        return -1;
    image->accumulated = 0.0;
    if (image->state == image_state::counting)
        image->start = clock_type::now();
    return 0;
}

constexpr unified_source test_source = {.read = test_read,
                                        .destroy = test_destroy,
                                        .clear = test_clear,
                                        .enable = test_enable,
                                        .disable = test_disable};

// ---- commands

constexpr pt_format open_format("%d %d %d byte short long float double egg mg-quad int64 = %d");

struct test_kind {
    int type;
    pattern shape;
};

// One element type, and at most one pattern that goes with it; nothing else is taken.
std::optional<test_kind> kind_asked(const pt_qualifiers<open_format> &q) {
    using quals = pt_qualifiers<open_format>;
    constexpr quals::choice<int> types[] = {{"byte", el_byte},   {"short", el_short},   {"long", el_long},
                                            {"float", el_float}, {"double", el_double}, {"int64", el_int64}};
    const std::optional<int> given = q.only(types);
    if (!given)
        return std::nullopt;
    const int type = *given;
    if (q.count({"egg", "mg-quad"}) == 0)
        return test_kind{type, pattern::ramp};
    if (q.given("egg") && !q.given("mg-quad") && (type == el_long || type == el_float))
        return test_kind{type, pattern::egg};
    if (q.given("mg-quad") && !q.given("egg") && type == el_long)
        return test_kind{type, pattern::quadrants};
    return std::nullopt;
}

int test_open(int quals, int cn, int nx, int ny, int nt) {
    const auto kind = kind_asked(pt_qualifiers<open_format>(quals));
    if (!kind) {
        sv_printf(cn, "! Must specify one and only one of byte, short, long, float or double.\n");
        return -1;
    }
    if (nx < 1 || ny < 1 || nt < 0) {
        sv_printf(cn, "! A test image of %d x %d x %d cannot be\n", nx, ny, nt);
        return -1;
    }
    const auto image =
        std::find_if(images.begin(), images.end(), [](const test_image &i) { return !i.open; });
    if (image == images.end()) {
        sv_printf(cn, "! ERROR, run out of test images\n");
        return -1;
    }
    const int handle = unified_open(cn, static_cast<int>(image - images.begin()), nx, ny, nt, kind->type,
                                    "Image of Made-up Test Data", test_source);
    if (handle >= 0)
        *image = {true, handle, kind->type, nx, ny, kind->shape, image_state::fresh, {}, 0.0};
    return handle;
}

int test_close(int, int cn, int handle) {
    for (const test_image &image : images)
        if (image.open && image.handle == handle)
            return unified_close_and_destroy(cn, handle);
    sv_printf(cn, "! Handle %d is not a test image\n", handle);
    return -1;
}

constinit const PARSE_TREE test_table[] = {
    pt_command<test_open>("open", open_format, "open a test image of the supplied size and type",
                          "width/height/frames/8-bit data/16-bit data/32-bit data/floating point data/"
                          "Double prec floating data/Egg-shaped peak (with long or float)/"
                          "Four quadrants (with long)/64-bit data"),
    pt_command<test_close>("close", "%d = %d", "close a test image", "handle"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_test = pt_subtree("test", test_table, "prefix for test functions");

} // namespace kestrel
