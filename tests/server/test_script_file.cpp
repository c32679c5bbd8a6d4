// Reading scripts: lines, long lines, loops that seek, and files that change while they run.
#include "server/script_file.h"

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <thread>
#include <vector>

namespace kestrel {
namespace {

class script : public testing::Test {
  protected:
    void SetUp() override { path_ = testing::TempDir() + "script_file_test_" + std::to_string(::getpid()); }
    void TearDown() override { std::filesystem::remove(path_); }

    void write(std::string_view text) const { std::ofstream(path_, std::ios::binary) << text; }
    void age() const { // an old file, and a block that is trusted
        std::filesystem::last_write_time(path_, std::filesystem::file_time_type::clock::now() -
                                                    std::chrono::hours(1));
    }
    script_file open() const { return script_file(unique_fd(::open(path_.c_str(), O_RDONLY | O_CLOEXEC))); }

    std::string path_;
};

std::optional<std::string> next(script_file &file, std::size_t max = 1024) {
    std::string_view line;
    if (!file.read_line(line, max))
        return std::nullopt;
    return std::string(line);
}

std::vector<std::string> rest(script_file &file, std::size_t max = 1024) {
    std::vector<std::string> lines;
    for (auto line = next(file, max); line; line = next(file, max))
        lines.push_back(*line);
    return lines;
}

TEST_F(script, crosses_its_blocks) {
    std::string text;
    std::vector<std::string> expected;
    for (int i = 0; i < 40000; ++i) {
        expected.push_back("line " + std::to_string(i));
        text += expected.back() + "\n";
    }
    write(text);
    script_file file = open();
    EXPECT_EQ(rest(file), expected);
    ASSERT_TRUE(file.seek(0));
    EXPECT_EQ(next(file), "line 0");
}

TEST_F(script, is_read_anew_when_it_changes_under_a_loop) {
    write("head\nbody 1\nnext\n");
    age();
    script_file file = open();
    next(file);
    const off_t body = file.tell();
    const unsigned long generation = file.generation();
    EXPECT_EQ(next(file), "body 1");
    ASSERT_TRUE(file.seek(body));
    EXPECT_EQ(file.generation(), generation);
    write("head\nbody 2\nnext\n");                              // the same size
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // more than a tick of the slowest clock
    ASSERT_TRUE(file.seek(body));
    EXPECT_NE(file.generation(), generation);
    EXPECT_EQ(next(file), "body 2");
}

TEST_F(script, is_not_fooled_by_a_change_within_one_clock_tick) {
    for (int i = 0; i < 50; ++i) {
        write("body " + std::to_string(i % 10) + "\n");
        script_file file = open();
        EXPECT_EQ(next(file), "body " + std::to_string(i % 10));
        write("body x\n");
        ASSERT_TRUE(file.seek(0));
        EXPECT_EQ(next(file), "body x");
    }
}

TEST_F(script, goes_on_in_a_file_that_grows) {
    write("one\n");
    age();
    script_file file = open();
    EXPECT_EQ(next(file), "one");
    EXPECT_EQ(next(file), std::nullopt);
    std::ofstream(path_, std::ios::app) << "two\n";
    EXPECT_EQ(next(file), "two");
}

TEST_F(script, can_be_a_pipe_that_cannot_seek) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    script_file file{unique_fd(ends[0])};
    std::thread writer([fd = ends[1]] {
        for (const std::string_view part : {"on", "e\ntw", "o\nthree"}) {
            EXPECT_EQ(::write(fd, part.data(), part.size()), static_cast<ssize_t>(part.size()));
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        ::close(fd);
    });
    EXPECT_EQ(rest(file), (std::vector<std::string>{"one", "two", "three"}));
    EXPECT_FALSE(file.seek(0));
    writer.join();
}

} // namespace
} // namespace kestrel
