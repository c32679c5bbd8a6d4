// The module store: what is made and found again, what other processes may do to it, and that nothing leaks.
#include "modules/store/headed.h"
#include "modules/store/result_module.h"
#include "tests/helpers/session_capture.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace kestrel;

extern "C" int module_header_from_c(const void *mapped, std::size_t size, std::size_t *first);

namespace {

std::size_t open_descriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

class store : public testing::Test {
  protected:
    void TearDown() override {
        for (const std::string &name : names_)
            ::shm_unlink(("/" + name).c_str());
        EXPECT_EQ(datamod_count().links, 0);
        EXPECT_EQ(datamod_count().mappings, 0);
        EXPECT_EQ(open_descriptors(), descriptors_);
    }

    const char *name(const char *text) {
        names_.push_back("kt_store_" + std::to_string(::getpid()) + "_" + text);
        return names_.back().c_str();
    }

    session_capture session_;
    std::size_t descriptors_ = open_descriptors();
    std::deque<std::string> names_;
    static constexpr int cn = session_capture::cn;
};

} // namespace

TEST_F(store, a_new_module_is_zero_and_linked_once_a_second_link_shares_the_mapping) {
    const char *n = name("a");
    void *head = nullptr;
    datamod_record *record = nullptr;
    ASSERT_EQ(_os_datmod(n, 100, &head, &record), 0);
    EXPECT_EQ(record->links, 1);
    EXPECT_EQ(datamod_mod_size(head), 100);
    EXPECT_EQ(std::string(static_cast<char *>(head), 100), std::string(100, '\0'));
    EXPECT_EQ(_os_datmod(n, 100, &head, &record), -1);
    EXPECT_EQ(errno, EEXIST);
    void *again = nullptr;
    ASSERT_EQ(_os_link(n, &record, &again), 0);
    EXPECT_EQ(again, head);
    EXPECT_EQ(record->links, 2);
    EXPECT_EQ(munlink(head), 0);
    EXPECT_EQ(datamod_mod_size(head), 100) << "mapped until the last link goes";
    EXPECT_EQ(munlink(head), 0);
    EXPECT_EQ(datamod_mod_size(head), -1);
    EXPECT_EQ(munlink(head), -1);
}

TEST_F(store, names_that_are_no_names_are_refused) {
    void *head = nullptr;
    datamod_record *record = nullptr;
    for (const std::string &bad : {std::string(), std::string("/"), std::string("a/b"), std::string("/a/"),
                                   std::string(".."), std::string(NAME_MAX + 1, 'n')}) {
        EXPECT_EQ(_os_datmod(bad.c_str(), 16, &head, &record), -1) << bad;
        EXPECT_EQ(_os_link(bad.c_str(), &record, &head), -1) << bad;
    }
}

TEST_F(store, sizes_that_cannot_be_leave_no_object) {
    module_link link;
    for (const auto &[x, y, t] :
         {std::tuple{INT_MAX, INT_MAX, INT_MAX}, {INT_MIN, INT_MIN, 8}, {INT_MAX, INT_MAX, 1}}) {
        const char *n = name("size");
        EXPECT_EQ(app_mkmod3d(cn, n, x, y, t, nullptr, nullptr, nullptr, nullptr, mod_element::float64, link),
                  nullptr);
        EXPECT_FALSE(module_link(n));
    }
    EXPECT_EQ(mkmod_nohead(cn, name("none"), -1), -1);
    EXPECT_NE(session_.replies().find("! Cannot create data module \""), std::string::npos);
}

TEST_F(store, a_new_module_goes_again_unless_it_is_kept) {
    const char *n = name("unwritten");
    const module_plan plan{mod_element::float32, 2, 2};
    {
        result_module made;
        EXPECT_FALSE(made.find(n));
        ASSERT_EQ(made.make(cn, n, plan), 0);
        EXPECT_TRUE(made.is_new());
        EXPECT_TRUE(made.view().holds(1, 1, 0));
        EXPECT_TRUE(module_link(n));
    }
    EXPECT_FALSE(module_link(n));
    {
        result_module made;
        ASSERT_EQ(made.make(cn, n, plan), 0);
        made.keep();
        EXPECT_EQ(made.make(cn, name("other"), {mod_element::float32, INT_MAX, INT_MAX}), -1) << "too large";
    }
    EXPECT_TRUE(module_link(n)) << "it was written";
    {
        result_module first, second;
        ASSERT_EQ(first.make(cn, n, plan), 0) << "found, as it fits";
        EXPECT_FALSE(first.is_new());
        EXPECT_TRUE(second.find(n));
        EXPECT_EQ(second.make(cn, n, {mod_element::float64, 2, 2}), -1);
        EXPECT_FALSE(second);
    }
    EXPECT_TRUE(module_link(n)) << "it was there before";
}

TEST_F(store, a_new_module_that_somebody_else_has_linked_stays) {
    const char *n = name("shared");
    module_link other;
    {
        result_module made;
        ASSERT_EQ(made.make_plain(cn, n, 4), 0);
        other = module_link(n);
        EXPECT_FALSE(other.is_new());
        EXPECT_EQ(datamod_remove(n, made.head()), -1) << "linked twice";
        EXPECT_EQ(errno, EBUSY);
        EXPECT_EQ(datamod_remove("a/b", made.head()), -1);
        EXPECT_EQ(datamod_remove(n, nullptr), -1);
    }
    EXPECT_TRUE(module_link(n));
}

TEST_F(store, only_the_object_that_is_mapped_is_removed) {
    const char *n = name("taken");
    const module_link link = module_link::make(n, 100);
    ASSERT_TRUE(link);
    ::shm_unlink((std::string("/") + n).c_str());
    const module_link other = module_link::make(n, 100);
    ASSERT_TRUE(other);
    EXPECT_EQ(datamod_remove(n, link.head()), -1);
    EXPECT_EQ(errno, ESTALE);
    EXPECT_TRUE(module_link(n)) << "somebody else's by now";
    EXPECT_EQ(datamod_remove(n, other.head()), 0);
    EXPECT_EQ(datamod_remove(n, other.head()), -1) << "gone already";
}

TEST_F(store, a_made_module_has_the_header_that_viewers_expect) {
    const char *n = name("header");
    module_link link;
    const std::string long_label(200, 'L');
    const char *labels[] = {"first", "second", nullptr, "never"};
    ASSERT_NE(app_mkmod3d(cn, n, -7, 3, 4, long_label.c_str(), nullptr, "frame", labels, mod_element::float32,
                          link),
              nullptr);
    void *const head = link.head();
    mod_header3d h;
    std::memcpy(&h, head, sizeof h);
    EXPECT_EQ(h.data_type, MOD_FLOAT);
    EXPECT_EQ(h.disp_type, 0x10003);
    EXPECT_EQ(h.num_x, 7U);
    EXPECT_EQ(h.aspect, -1.0);
    EXPECT_EQ(std::string(h.x_label), std::string(80, 'L'));
    EXPECT_STREQ(h.y_label, "Y");
    EXPECT_STREQ(h.t_label, "frame");
    EXPECT_STREQ(h.z_label, "COUNTS");
    EXPECT_STREQ(h.title, n);
    EXPECT_EQ(h.labels_num, 2);
    EXPECT_EQ(h.labels_size, 32); // 2 x 4 + 6 + 7 = 21, in sixteens
    EXPECT_EQ(h.data_offset, 464 + 32);
    EXPECT_EQ(datamod_mod_size(head), 464 + 32 + 7 * 3 * 4 * 4);
    EXPECT_EQ(id_get_label(head, 1), "second");
    EXPECT_EQ(id_get_label(head, 2), "");
    EXPECT_EQ(id_get_ptr(head, 6, 2, 3), static_cast<std::byte *>(head) + 496 + (3 * 21 + 2 * 7 + 6) * 4);
    std::size_t second = 0;
    EXPECT_EQ(module_header_from_c(head, static_cast<std::size_t>(datamod_mod_size(head)), &second), 0);
    EXPECT_EQ(second, 500U);
}

TEST_F(store, a_header_that_lies_is_refused_before_anything_is_touched) {
    const char *n = name("lies");
    module_link link;
    ASSERT_NE(app_mkmod3d(cn, n, 4, 4, 4, nullptr, nullptr, nullptr, nullptr, mod_element::u_int32, link),
              nullptr);
    void *const head = link.head();
    auto &h = *static_cast<mod_header3d *>(head);
    const mod_header3d good = h;
    module_view view;
    const std::pair<const char *, void (*)(mod_header3d &)> lies[] = {
        {"has an unknown data type in its header", [](mod_header3d &m) { m.data_type = 5; }},
        {"is neither a 2-D nor a 3-D module by its header", [](mod_header3d &m) { m.disp_type = 0x20003; }},
        {"has dimensions in its header that do not fit its size", [](mod_header3d &m) { m.num_t = 5; }},
        {"has dimensions in its header that do not fit its size",
         [](mod_header3d &m) { m.num_x = m.num_y = m.num_t = 0x10000; }}, // the product wraps to 0 in 32 bits
        {"has dimensions in its header that do not fit its size",
         [](mod_header3d &m) { m.num_x = 0xFFFFFFFF; }},
        {"has dimensions in its header that do not fit its size", [](mod_header3d &m) { m.data_type = 4; }},
        {"has a data offset in its header that does not fit its size",
         [](mod_header3d &m) { m.data_offset = -8; }},
        {"has a data offset in its header that does not fit its size",
         [](mod_header3d &m) { m.data_offset = 466; }},
        {"has a data offset in its header that does not fit its size",
         [](mod_header3d &m) { m.data_offset = INT_MAX; }},
    };
    for (const auto &[fault, lie] : lies) {
        lie(h);
        EXPECT_STREQ(mod_look(head, view), fault);
        EXPECT_EQ(clear_mod(head), -1);
        h = good;
    }
    EXPECT_EQ(mod_look(head, view), nullptr);
}

// To keep it saves the time of mapping it again; what happened to it meanwhile must not be met by who uses it next.
TEST_F(store, a_large_module_stays_mapped_for_its_next_use_unless_it_is_another_by_then) {
    constexpr std::size_t large = std::size_t{17} << 20;
    const char *n = name("large");
    const auto object = "/" + std::string(n);
    datamod_keep_unused(true);
    void *head = nullptr, *again = nullptr;
    datamod_record *record = nullptr;
    const auto use = [&](const char *which, std::size_t size) {
        ASSERT_EQ(_os_link(which, &record, &again), 0);
        EXPECT_EQ(datamod_mod_size(again), static_cast<off_t>(size));
        EXPECT_EQ(munlink(again), 0);
    };
    ASSERT_EQ(_os_datmod(n, large, &head, &record), 0);
    EXPECT_EQ(munlink(head), 0);
    EXPECT_EQ(datamod_count().mappings, 1);
    EXPECT_EQ(datamod_links(head), 0);
    EXPECT_EQ(munlink(head), -1) << "nobody has it";
    use(n, large);
    EXPECT_EQ(again, head);
    datamod_turn();
    EXPECT_EQ(datamod_count().mappings, 1);
    ASSERT_EQ(::truncate(("/dev/shm" + object).c_str(), large - 4096), 0);
    use(n, large - 4096);
    ASSERT_EQ(::shm_unlink(object.c_str()), 0);
    ASSERT_EQ(_os_datmod(n, large, &head, &record), 0) << "and not the old one's memory";
    EXPECT_EQ(datamod_count().mappings, 1);
    const char *other = name("other");
    ASSERT_EQ(_os_datmod(other, large, &again, &record), 0);
    EXPECT_EQ(munlink(head), 0);
    EXPECT_EQ(munlink(again), 0);
    EXPECT_EQ(datamod_count().mappings, 1) << "one is kept";
    ASSERT_EQ(::shm_unlink(("/" + std::string(other)).c_str()), 0);
    datamod_turn();
    EXPECT_EQ(datamod_count().mappings, 0);
    use(n, large);
    datamod_keep_unused(false);
}

TEST_F(store, threads_may_make_link_and_unlink_at_once) {
    const char *shared[] = {name("t0"), name("t1"), name("t2")};
    std::atomic<int> made{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&, i] {
            for (int turn = 0; turn < 300; ++turn) {
                const char *n = shared[(turn + i) % 3];
                void *head = nullptr;
                datamod_record *record = nullptr;
                if (_os_link(n, &record, &head) != 0 && _os_datmod(n, 4096, &head, &record) == 0)
                    ++made;
                else if (head == nullptr)
                    continue; // another thread was faster in making it
                EXPECT_EQ(datamod_mod_size(head), 4096);
                EXPECT_EQ(munlink(head), 0);
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(made, 3);
}
