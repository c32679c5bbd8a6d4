// The handle table, with a source of the test's own.
#include "tests/helpers/session_capture.h"
#include "unified/handles/handles.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace {

constexpr int cn = session_capture::cn;
int cleared = 0;
bool fail = false;

int fake_read(int, void *, int, int, int, int, int, int) {
    return -1;
}
int fake_clear(int, int, int, int, int, int, int) {
    return fail ? -1 : 0;
}
void on_clear() {
    ++cleared;
}

constexpr unified_source fake = {.read = fake_read, .clear = fake_clear};

class handles : public testing::Test {
  protected:
    void TearDown() override {
        unified_close_all(cn);
        fail = false;
    }
    session_capture session_;
};

} // namespace

TEST_F(handles, clear_callbacks_run_after_good_clears_only) {
    const int h = unified_open(cn, 40, 8, 4, 2, el_long, "fake", fake);
    cleared = 0;
    EXPECT_EQ(unified_set_clear_callback(cn, on_clear), 0);
    EXPECT_EQ(unified_set_clear_callback(cn, on_clear), 0) << "once is enough";
    EXPECT_EQ(app_unified_clear(cn, h, 0, 0, 0, 8, 4, 2), 0);
    EXPECT_EQ(cleared, 1);
    fail = true;
    EXPECT_EQ(app_unified_clear(cn, h, 0, 0, 0, 8, 4, 2), -1);
    EXPECT_EQ(cleared, 1);
    EXPECT_EQ(unified_remove_clear_callback(cn, on_clear), 0);
    EXPECT_EQ(unified_remove_clear_callback(cn, on_clear), -1);
    EXPECT_NE(session_.replies().find("ERROR: Cannot find clear callback to remove\n"), std::string::npos);
}
