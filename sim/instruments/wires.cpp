#include "sim/instruments/wires.h"

#include "sim/instruments/conversation.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <list>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <termios.h>
#include <thread>
#include <vector>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;

struct port {
    instrument *owner;
    unique_fd fd;
};

// The lock guards all of these.
std::list<wire> wires;
std::list<port> ports;
unique_fd wake_fd;
std::thread thread;
std::atomic<bool> ending{false};
std::atomic<unsigned> asked{0}, looked{0}; // changes of the wires: made, and seen by the thread

void wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(wake_fd.get(), &one, sizeof one);
}

std::string link_of(const instrument &i) {
    return bench.links + "/" + std::string(i.name);
}

// ---------------------------------------------------------------- making wires

bool open_serial(instrument &i) {
    unique_fd near(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    char name[64];
    if (!near || ::grantpt(near.get()) != 0 || ::unlockpt(near.get()) != 0 ||
        ::ptsname_r(near.get(), name, sizeof name) != 0)
        return false;
    unique_fd far(::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios raw{};
    if (!far || ::tcgetattr(far.get(), &raw) != 0)
        return false;
    ::cfmakeraw(&raw); // until somebody sets the line: no echo of what the instrument says
    ::tcsetattr(far.get(), TCSANOW, &raw);
    i.device = name;
    if (!bench.links.empty()) {
        std::error_code failed;
        std::filesystem::remove(link_of(i), failed);
        std::filesystem::create_symlink(name, link_of(i), failed);
        if (failed) {
            errno = failed.value();
            return false;
        }
    }
    wires.push_back({&i, std::move(near), std::move(far)});
    return true;
}

bool open_port(instrument &i) {
    unique_fd s(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int one = 1;
    ::setsockopt(s.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(bench.address);
    address.sin_port = htons(static_cast<std::uint16_t>(i.tcp_port));
    socklen_t size = sizeof address;
    auto *const a = reinterpret_cast<sockaddr *>(&address);
    if (!s || ::bind(s.get(), a, size) != 0 || ::listen(s.get(), 16) != 0 ||
        ::getsockname(s.get(), a, &size) != 0)
        return false;
    i.tcp_port = ntohs(address.sin_port);
    ports.push_back({&i, std::move(s)});
    return true;
}

bool appear(instrument &i) {
    i.present = true;
    return (!i.on_serial || open_serial(i)) && (!i.on_tcp || open_port(i));
}

void disappear(instrument &i) {
    i.present = false;
    wires.remove_if([&](const wire &w) { return w.owner == &i; });
    ports.remove_if([&](const port &p) { return p.owner == &i; });
}

// ---------------------------------------------------------------- what is ready

enum class end_of { nothing, wire, instrument };

end_of receive(wire &w) {
    char block[4096];
    const ssize_t n = ::read(w.fd.get(), block, sizeof block);
    if (n > 0) {
        w.in.append(block, static_cast<std::size_t>(n));
        return conversation_take_lines(w) ? end_of::nothing : end_of::instrument;
    }
    return n < 0 && (errno == EAGAIN || errno == EINTR || errno == EIO) ? end_of::nothing : end_of::wire;
}

void accept_one(port &p) {
    unique_fd s(::accept4(p.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!s)
        return;
    const int one = 1;
    ::setsockopt(s.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    wires.push_back({p.owner, std::move(s), {}});
}

// ---------------------------------------------------------------- the thread

// Milliseconds until something is due to be sent; -1 when nothing is.
int time_to_wait() {
    int least = -1;
    for (const wire &w : wires) {
        if (w.out.empty())
            continue;
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(w.out.front().due - steady::now()).count();
        const int ms = static_cast<int>(std::clamp<long long>(left, 1, 60000));
        least = least < 0 ? ms : std::min(least, ms);
    }
    return least;
}

// What is ready among the wires and ports as they are now: they may be others than those that were polled.
void serve(const std::vector<pollfd> &polled) {
    const auto ready = [&](int fd) {
        return std::any_of(polled.begin(), polled.end(),
                           [fd](const pollfd &p) { return p.fd == fd && p.revents; });
    };
    for (port &p : ports) {
        if (ready(p.fd.get()))
            accept_one(p);
    }
    for (auto w = wires.begin(); w != wires.end();) {
        const auto next = std::next(w);
        const end_of over = ready(w->fd.get()) ? receive(*w) : end_of::nothing;
        if (over == end_of::instrument) {
            disappear(*w->owner); // and with it this wire, and perhaps the next
            return;
        }
        conversation_send_due(*w);
        if (over == end_of::wire)
            wires.erase(w);
        w = next;
    }
}

void turn() {
    looked = asked.load();
    looked.notify_all();
    std::vector<pollfd> polled{{wake_fd.get(), POLLIN, 0}};
    int wait_ms = -1;
    {
        const std::lock_guard guard(bench.lock);
        for (const port &p : ports)
            polled.push_back({p.fd.get(), POLLIN, 0});
        for (const wire &w : wires)
            polled.push_back({w.fd.get(), POLLIN, 0});
        wait_ms = time_to_wait();
    }
    if (::poll(polled.data(), polled.size(), wait_ms) < 0)
        return;
    std::uint64_t count = 0;
    if (polled.front().revents) {
        [[maybe_unused]] const ssize_t n = ::read(wake_fd.get(), &count, sizeof count);
    }
    const std::lock_guard guard(bench.lock);
    serve(polled);
}

// What was closed goes only when the thread's poll has let go of it.
void wait_for_thread() {
    const unsigned mine = ++asked;
    wake();
    for (unsigned now = looked; static_cast<int>(now - mine) < 0; now = looked)
        looked.wait(now);
}

} // namespace

bool wires_present(instrument &target, bool present) {
    bool done = true;
    {
        const std::lock_guard guard(bench.lock);
        if (present != target.present) {
            disappear(target);
            done = !present || appear(target);
        }
    }
    wait_for_thread();
    return done;
}

bool wires_start(std::string &why) {
    wake_fd.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    for (instrument &i : bench.all) {
        if (!appear(i)) {
            why = std::string(i.name) + " cannot have its wires: " + std::strerror(errno);
            return false;
        }
    }
    thread = std::thread([] {
        while (!ending)
            turn();
    });
    return true;
}

void wires_stop() {
    ending = true;
    wake();
    if (thread.joinable())
        thread.join();
    std::error_code ignored;
    for (instrument &i : bench.all) {
        if (!bench.links.empty() && i.on_serial)
            std::filesystem::remove(link_of(i), ignored);
        disappear(i);
    }
}

} // namespace kestrel
