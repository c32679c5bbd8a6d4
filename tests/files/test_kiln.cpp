// Headers by a clock that stands still, through the command itself; what is read back from headers and index files.
#include "files/commands.h"
#include "files/kiln_header.h"
#include "files/kiln_place.h"
#include "parser/interpreter.h"
#include "tests/helpers/session_capture.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

using namespace kestrel;

namespace {

constinit const PARSE_TREE root[] = {pt_row(row_file), pt_end()};

constexpr std::time_t new_year = 1767225600; // 2026-01-01 00:00:00 UTC, a Thursday
constexpr std::time_t day = 86400;
std::time_t now = new_year;

// A scratch folder, sessions in UTC, and the clock.
class kiln : public testing::Test {
  protected:
    kiln() {
        ::setenv("TZ", "UTC", 1);
        ::tzset();
        kiln_clock = [] { return now; };
        pt_set_root(root);
        std::filesystem::create_directory(folder);
    }
    ~kiln() override { std::filesystem::remove_all(folder); }

    std::string run(const std::string &line) {
        user_service(session.cn, line.c_str(), 1, nullptr, nullptr);
        return session.replies();
    }
    std::string contents(const std::string &name) {
        std::ifstream file(folder + "/" + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void write(const std::string &name, const std::string &bytes) {
        std::ofstream(folder + "/" + name, std::ios::binary) << bytes;
    }
    std::string next(const std::string &more = "") {
        return run("file write-kiln-header '" + folder + "' 10 " + more + " first 'A'");
    }

    const std::string folder = testing::TempDir() + "kiln_" + std::to_string(::getpid());
    session_capture session;
};

std::string index_bytes(int sequence, const char *stamp, char last = '\0') {
    std::string bytes(8, last);
    std::memcpy(bytes.data(), &sequence, sizeof sequence);
    std::memcpy(&bytes[4], stamp, 3);
    return bytes;
}

} // namespace

TEST_F(kiln, a_date_names_the_header_and_the_index_keeps_it) {
    now = new_year + 318 * day + 9 * 3600 + 5 * 60 + 7; // 15 November, a Sunday
    EXPECT_EQ(next("'a comment' saxs-x 256"), "* \"A00000.B15\"\n");
    EXPECT_EQ(contents("AINDEX.NDX"), index_bytes(0, "B15"));
    EXPECT_EQ(contents("A00000.B15"),
              "Created from kestrel on Sunday 15/11/26 at 9:05:07\na comment\n"
              "    256      10       1       0       0       0       0       0       0       1\n"
              "A00001.B15\n"
              "     10       4       1       0       0       0       0       0       0       0\n"
              "A00004.B15\n");
    EXPECT_EQ(contents("AINFO.LOG"),
              "A00000.B15 Created on Sunday 15/11/26 at 9:05:07\na comment\n" + std::string(79, '=') + "\n");
    const std::pair<std::time_t, const char *> dates[] = {{0, "* \"A01000.101\"\n"},
                                                          {272, "* \"A02000.930\"\n"},
                                                          {273, "* \"A03000.A01\"\n"},
                                                          {364, "* \"A04000.C31\"\n"}};
    for (const auto &[days, name] : dates) {
        now = new_year + days * day;
        EXPECT_EQ(next(), name);
    }
    EXPECT_EQ(run("file write-kiln-header '" + folder + "' 0 first 'a' query"), "* \"A04000.C31\"\n");
    EXPECT_EQ(contents("AINDEX.NDX"), index_bytes(4, "C31"));
}

// A log has the year as it is, a header has it with two digits.
TEST_F(kiln, years_and_titles) {
    now = new_year - 20 * 365 * day - 4 * day; // 2006-01-02, a Monday
    EXPECT_EQ(run("file kiln-title 'Station 16'"), "* 0\n");
    next();
    EXPECT_TRUE(contents("A00000.102").starts_with("Created at Station 16 on Monday 2/1/06 at 0:00:00\n\n"));
    EXPECT_TRUE(contents("AINFO.LOG").starts_with("A00000.102 Created on Monday 2/1/6 at 0:00:00\n\n==="));
    EXPECT_EQ(run("file kiln-title '" + std::string(90, 't') + "'"), "* 0\n");
    next();
    EXPECT_TRUE(contents("A01000.102").starts_with("Created at " + std::string(80, 't') + " on Monday"));
    EXPECT_EQ(run("file kiln-title ''"), "* 0\n");
}

TEST_F(kiln, broken_index_files_stay_as_they_are) {
    const std::string broken =
        "! ERROR: index file '" + folder +
        "/AINDEX.NDX' is broken: it holds no sequence number from 0 to 99 with a date\n";
    const std::pair<std::string, std::string> cases[] = {
        {index_bytes(99, "101"), "! Sequence number has read 99, pick a new first letter\n"},
        {index_bytes(3, "101").substr(0, 7),
         "! Cannot read sequence number from local file '" + folder + "/AINDEX.NDX'\n"},
        {"", "! Cannot read sequence number from local file '" + folder + "/AINDEX.NDX'\n"},
        {index_bytes(3, "101", 'x'), "! Index file string termination 0 missing\n"},
        {index_bytes(100, "101"), broken},
        {index_bytes(-2, "101"), broken},
        {index_bytes(3, "D01"), broken},
        {index_bytes(3, "1\n1"), broken},
        {index_bytes(3, "101") + "x", broken}};
    for (const auto &[bytes, line] : cases) {
        write("AINDEX.NDX", bytes);
        EXPECT_EQ(next(), line + "* (null)\n");
        EXPECT_EQ(contents("AINDEX.NDX"), bytes);
        EXPECT_FALSE(std::filesystem::exists(folder + "/AINFO.LOG"));
    }
    write("AINDEX.NDX", index_bytes(-1, "xyz")); // none yet
    EXPECT_EQ(run("file write-kiln-header '" + folder + "' 0 first 'A' query"), "* \"\"\n");
    now = new_year;
    EXPECT_EQ(next(), "* \"A00000.101\"\n");
}

TEST_F(kiln, headers_read_back_as_they_were_written) {
    kiln_header header;
    header.name = "A07000.101";
    header.frames = 12;
    header.saxs = {128, 64, 0x20101300, 0x30000000};
    header.waxs = {512, 0, -1, 0};
    header.calib_channels = 8;
    header.intel = header.time_v1 = true;
    header.extras = {"1 2 3 4 5 6 7 8 9 10", "A07001.101"};
    for (const char *line_end : {"\n", "\r\n"}) {
        const auto lines = kiln_parse(kiln_text(header, kiln_local_time(), line_end));
        ASSERT_TRUE(lines && lines->size() == 4);
        for (std::size_t i = 0; i < 4; ++i) {
            EXPECT_EQ((*lines)[i].numbers, kiln_lines(header)[i].numbers);
            EXPECT_EQ((*lines)[i].file, "A0700" + std::to_string(i + 1) + ".101");
        }
    }
    const std::string good = "1\n2\n1 2 3 4 5 6 7 8 9 10\nA07004.101\n";
    EXPECT_TRUE(kiln_parse(good));
    for (const char *text :
         {"", "1\n2\n", "1\n2\n1 2 3 4 5 6 7 8 9\nA07004.101\n",
          "1\n2\n1 2 3 4 5 6 7 8 9 10 11\nA07004.101\n", "1\n2\n1 2 3 4 5 6 7 8 9 1e9\nA07004.101\n",
          "1\n2\n1 2 3 4 5 6 7 8 9 99999999999\nA07004.101\n", "1\n2\n1 2 3 4 5 6 7 8 9 10\nA07001.101\n",
          "1\n2\n1 2 3 4 5 6 7 8 9 10\n"})
        EXPECT_FALSE(kiln_parse(text)) << text;
}

TEST_F(kiln, names_of_headers) {
    for (const char *name : {"A01000.C31", "z99000.101", "Axx000.xyz"})
        EXPECT_TRUE(kiln_is_name(name)) << name;
    for (const char *name :
         {"", "A1000.C31", "A01001.C31", "101000.C31", "A01000.C311", "A01000-C31", "@01000.C31"})
        EXPECT_FALSE(kiln_is_name(name)) << name;
}
