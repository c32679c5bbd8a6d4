#include "files/image_trial.h"

#include "files/child_settings.h"
#include "server/wait.h"
#include "support/fd.h"
#include "support/file_io.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr const char *program_name = "kestrel-try-image"; // beside this program
constexpr int least_seconds = 10;
constexpr long long bytes_a_second = 4 << 20; // of the file: compressed ones hold many times their size

// The child's status once it has ended; killed first if it is asked for so.
int reap(pid_t child, bool kill) {
    if (kill)
        ::kill(-child, SIGKILL);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

// Waits for the child's end at most until `end`: what the wait came to. The child is not reaped yet.
wait_result wait_for_end(pid_t child, steady::time_point end) {
    constexpr milliseconds look(
        10); // how soon an end is noticed on an old kernel, which has no such descriptor
    const unique_fd ended(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    for (;;) {
        siginfo_t info{};
        if (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
            info.si_pid == child)
            return wait_result::ready;
        const auto left = std::chrono::ceil<milliseconds>(end - steady::now());
        if (left <= milliseconds(0))
            return wait_result::timeout;
        const auto here = ended ? left : std::min(left, look);
        if (sv_wait_fd(ended.get(), POLLIN, static_cast<int>(here.count())) == wait_result::interrupted)
            return wait_result::interrupted;
    }
}

// The first line of what waits in a pipe.
std::string line_from(int fd) {
    char text[256];
    const ssize_t got = read_full(fd, text, sizeof text);
    return got > 0 ? std::string(text, std::find(text, text + got, '\n')) : std::string();
}

std::string cause_of(int status, int output, milliseconds limit) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGXCPU)
        return "cannot be read within " + std::to_string(limit.count() / 1000) + " s";
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        return "cannot be tried: what tries it was killed"; // short of memory, the system does so
    if (WIFSIGNALED(status))
        return "is corrupt: the HDF5 library crashes over it (" + std::string(::strsignal(WTERMSIG(status))) +
               ")";
    if (WEXITSTATUS(status) == 0)
        return {};
    const std::string said = line_from(output);
    return said.empty() ? "trying it ended with status " + std::to_string(WEXITSTATUS(status)) : said;
}

} // namespace

std::string run_trial(const std::string &program, const std::string &argument, int file, milliseconds limit,
                      const std::string &second) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return "cannot be tried: " + std::string(std::strerror(errno));
    const unique_fd output(ends[0]);
    unique_fd input(ends[1]);
    const int descriptors[] = {file, input.get(), -1};
    child_settings settings(descriptors);
    std::string name = program;
    std::string word = argument, other = second;
    char *arguments[] = {name.data(), word.data(), other.empty() ? nullptr : other.data(), nullptr};
    pid_t child = -1;
    const int error = settings.start(program.c_str(), arguments, child);
    if (error != 0)
        return "cannot be tried: " + program + ": " + std::strerror(error);
    input.reset();
    const wait_result waited = wait_for_end(child, steady::now() + limit);
    const int status = reap(child, waited != wait_result::ready);
    if (waited == wait_result::interrupted)
        return "opening it was interrupted";
    if (waited == wait_result::timeout)
        return "cannot be read within " + std::to_string(limit.count() / 1000) + " s";
    return cause_of(status, output.get(), limit);
}

std::string try_image(int file, const std::string &dataset) {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    struct stat status {};
    if (error || ::fstat(file, &status) != 0)
        return "cannot be tried: " + (error ? error.message() : std::strerror(errno));
    const long long seconds = std::min<long long>(least_seconds + status.st_size / bytes_a_second, 24 * 3600);
    return run_trial((self.parent_path() / program_name).string(), std::to_string(seconds), file,
                     std::chrono::seconds(seconds), dataset);
}

} // namespace kestrel
