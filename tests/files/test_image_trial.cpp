// The program that tries a file: its end is told as it was, it never stays, and it gets no descriptors but its own.
#include "files/image_trial.h"
#include "server/interrupt.h"
#include "support/fd.h"
#include "support/file_io.h"

#include <cerrno>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>

using namespace kestrel;
using std::chrono::milliseconds;

namespace {

long open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

// What is told of a shell that runs the script from its standard input.
std::string told_of(const std::string &script, milliseconds limit = milliseconds(20'000)) {
    const unique_fd file(::memfd_create("script", 0));
    EXPECT_TRUE(write_all(file.get(), script));
    ::lseek(file.get(), 0, SEEK_SET);
    return run_trial("/bin/sh", "-s", file.get(), limit);
}

} // namespace

TEST(image_trial, every_end_is_told_and_nothing_stays) {
    const long before = open_descriptors();
    struct {
        const char *script, *cause;
        milliseconds limit{20'000};
    } const cases[] = {
        {"exit 0", ""},
        {"echo unheeded", ""},
        {"echo has no data; echo more; exit 1", "has no data"},
        {"exit 3", "trying it ended with status 3"},
        {"kill -SEGV $$", "is corrupt: the HDF5 library crashes over it (Segmentation fault)"},
        {"kill -XCPU $$", "cannot be read within 20 s"},
        {"kill -KILL $$", "cannot be tried: what tries it was killed"},
        {"sleep 60", "cannot be read within 1 s", milliseconds(1000)},
        {"kill -STOP $$", "cannot be read within 1 s", milliseconds(1000)},
        {"exec >&-; sleep 60", "cannot be read within 1 s", milliseconds(1000)},
        {"for n in 3 4 5 6 7 8 9; do test -e /proc/$$/fd/$n && echo $n; done; echo none; exit 1", "none"},
    };
    for (const auto &[script, cause, limit] : cases)
        EXPECT_EQ(told_of(script, limit), cause) << script;
    EXPECT_EQ(run_trial("/none/such", "", 0, milliseconds(1000)),
              "cannot be tried: /none/such: No such file or directory");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(errno, ECHILD);
}

TEST(image_trial, an_interrupt_ends_the_wait) {
    sv_quit = 1;
    EXPECT_EQ(told_of("sleep 60"), "opening it was interrupted");
    sv_quit = 0;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}
