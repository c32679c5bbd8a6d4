#include "support/control_client.h"

#include "support/fd.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;

constexpr std::size_t answer_max = 16 << 20; // bytes; no server says as much

bool give_up(std::string &answer, const std::string &why) {
    answer = why;
    return false;
}

// False when the time is over or the wait failed.
bool wait_for(int fd, short events, steady::time_point end) {
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady::now()).count();
        pollfd p{fd, events, 0};
        const int n = left > 0 ? ::poll(&p, 1, static_cast<int>(left)) : 0;
        if (n >= 0 || errno != EINTR)
            return n > 0;
    }
}

// Without a folder of the user's own there is one in /tmp, where anybody may have made it before.
std::string temporary_folder() {
    return "/tmp/kestrel-" + std::to_string(::geteuid());
}

bool is_planted(const std::string &path) {
    struct stat status {};
    const std::string folder = temporary_folder();
    return path.starts_with(folder + "/") && ::lstat(folder.c_str(), &status) == 0 &&
           (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid());
}

bool connect_to(const std::string &path, steady::time_point end, unique_fd &fd, std::string &answer) {
    sockaddr_un address{};
    struct stat status {};
    if (!control_address(path, address))
        return give_up(answer, path + " is too long for a socket");
    if (is_planted(path))
        return give_up(answer, "no server at " + path + ": its folder belongs to somebody else");
    if (::lstat(path.c_str(), &status) != 0)
        return give_up(answer, "no server at " + path + ": " + std::strerror(errno));
    if (!S_ISSOCK(status.st_mode))
        return give_up(answer, path + " is no socket");
    fd.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // A full backlog answers EAGAIN at once.
    while (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if (errno != EAGAIN || steady::now() >= end)
            return give_up(answer, "no server at " + path + ": " + std::strerror(errno));
        ::poll(nullptr, 0, 1);
    }
    return true;
}

} // namespace

std::string control_folder() {
    const char *const runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime == '/')
        return runtime;
    struct stat status {};
    const std::string run = "/run/user/" + std::to_string(::geteuid());
    if (::stat(run.c_str(), &status) == 0 && status.st_uid == ::geteuid())
        return run;
    return temporary_folder();
}

std::string control_path(int port) {
    return control_folder() + "/kestrel-" + std::to_string(port) + ".sock";
}

bool control_address(const std::string &path, sockaddr_un &address) {
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool control_ask(const std::string &path, std::string_view request, std::chrono::milliseconds patience,
                 std::string &answer) {
    const auto end = steady::now() + patience;
    unique_fd fd;
    answer.clear();
    if (!connect_to(path, end, fd, answer))
        return false;
    const std::string line = std::string(request) + "\n";
    if (::send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        return give_up(answer, "the server at " + path + " takes no request");
    for (;;) {
        char block[16384];
        if (!wait_for(fd.get(), POLLIN, end))
            return give_up(answer, "the server at " + path + " does not answer");
        const ssize_t n = ::recv(fd.get(), block, sizeof block, 0);
        if (n == 0)
            return true;
        if (n < 0 && errno != EINTR && errno != EAGAIN)
            return give_up(answer, "the server at " + path + " does not answer: " + std::strerror(errno));
        if (n > 0)
            answer.append(block, static_cast<std::size_t>(n));
        if (answer.size() > answer_max)
            return give_up(answer, "the server at " + path + " does not end its answer");
    }
}

} // namespace kestrel
