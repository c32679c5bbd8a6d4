#include "files/nexus_helper.h"

#include "files/child_settings.h"
#include "files/nexus_records.h"
#include "support/file_io.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <sys/mman.h>
#include <sys/wait.h>
#include <vector>

namespace kestrel {

namespace {

constexpr const char *program_name = "kestrel-nexus"; // beside this program

struct pipe_ends {
    unique_fd read, write;
};

bool make_pipe(pipe_ends &ends) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        return false;
    ends.read.reset(fds[0]);
    ends.write.reset(fds[1]);
    return true;
}

} // namespace

nexus_helper::~nexus_helper() {
    if (child_ < 0)
        return;
    ::kill(child_, SIGKILL);
    while (!has_ended())
        listen(); // its pipe closes at once
    clear_up();
}

// It removes its file itself unless it was ended by force; another's of that name is not touched.
void nexus_helper::clear_up() const {
    if (WIFSIGNALED(status_) && has_said("made") && !has_said("whole"))
        ::unlink((name_ + ".part").c_str());
}

bool nexus_helper::start(const std::string &name, const std::string &records, std::span<const int> modules,
                         std::string &cause) {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    // The server may go to another folder meanwhile.
    const std::filesystem::path absolute =
        error ? std::filesystem::path() : std::filesystem::absolute(name, error);
    pipe_ends orders, answers;
    const unique_fd job(::memfd_create("nexus-job", MFD_CLOEXEC));
    results_.reset(::memfd_create("nexus-results", MFD_CLOEXEC));
    if (error || !job || !results_ || !make_pipe(orders) || !make_pipe(answers) ||
        ::fcntl(answers.read.get(), F_SETFL, O_NONBLOCK) != 0 || !write_all(job.get(), records)) {
        cause = error ? error.message() : std::strerror(errno);
        return false;
    }
    std::vector<int> descriptors = {job.get(), answers.write.get(), -1, orders.read.get(), results_.get()};
    descriptors.insert(descriptors.end(), modules.begin(), modules.end());
    child_settings settings(descriptors);
    std::string program = (self.parent_path() / program_name).string(), file = name;
    char *arguments[] = {program.data(), file.data(), nullptr};
    pid_t child = -1;
    if (const int failed = settings.start(program.c_str(), arguments, child); failed != 0) {
        cause = program + ": " + std::strerror(failed);
        return false;
    }
    name_ = absolute.string();
    child_ = child;
    control_ = std::move(orders.write);
    answers_ = std::move(answers.read);
    return true;
}

bool nexus_helper::give_results(const std::string &records) {
    return write_all(results_.get(), records);
}

void nexus_helper::order(char what) {
    write_all(control_.get(), {&what, 1}); // one that has ended is told by listen()
}

void nexus_helper::leave() {
    control_.reset();
}

void nexus_helper::listen() {
    char text[1024];
    while (child_ >= 0) {
        const ssize_t got = read_some(answers_.get(), text, sizeof text);
        if (got < 0)
            return; // nothing more for now
        if (got == 0)
            reap();
        said_.append(text, static_cast<std::size_t>(got));
    }
}

// Its end of the pipe closes as it ends: the wait is short.
void nexus_helper::reap() {
    while (::waitpid(child_, &status_, 0) < 0 && errno == EINTR) {
    }
    child_ = -1;
}

bool nexus_helper::has_said(const char *line) const {
    return ("\n" + said_).find("\n" + std::string(line) + "\n") != std::string::npos;
}

std::string nexus_helper::cause() const {
    if (WIFSIGNALED(status_))
        return std::string(program_name) + " was ended by a signal: " + ::strsignal(WTERMSIG(status_));
    const std::size_t at = said_.rfind("! ");
    if (at == said_.npos)
        return std::string(program_name) + " ended with status " + std::to_string(WEXITSTATUS(status_));
    return said_.substr(at + 2, said_.find('\n', at) - at - 2);
}

} // namespace kestrel
