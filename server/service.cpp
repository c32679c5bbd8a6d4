#include "server/service.h"

#include "server/activity.h"
#include "support/fd.h"

#include <atomic>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;

constexpr std::chrono::seconds longest_turn{60};
std::atomic<steady::rep> last_turn{steady::now().time_since_epoch().count()};

std::optional<long long> number_of(const char *name) {
    const char *text = std::getenv(name);
    long long number = 0;
    if (!text || std::from_chars(text, text + std::strlen(text), number).ec != std::errc() || number <= 0)
        return std::nullopt;
    return number;
}

} // namespace

void sv_service_tell(std::string_view state) {
    const char *path = std::getenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (!path || (*path != '/' && *path != '@') || std::strlen(path) >= sizeof address.sun_path)
        return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path, std::strlen(path));
    if (*path == '@') // a name outside the file system
        address.sun_path[0] = '\0';
    const unique_fd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
    if (fd)
        ::sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr *>(&address), length);
}

std::optional<std::chrono::milliseconds> sv_service_interval() {
    const std::optional<long long> period = number_of("WATCHDOG_USEC"), whose = number_of("WATCHDOG_PID");
    if (!period || (whose && *whose != ::getpid()))
        return std::nullopt;
    return std::max(std::chrono::milliseconds(1), std::chrono::milliseconds(*period / 2000));
}

void sv_service_turn(steady::time_point now) {
    last_turn.store(now.time_since_epoch().count(), std::memory_order_relaxed);
}

bool sv_service_turns() {
    const steady::time_point turned{steady::duration(last_turn.load(std::memory_order_relaxed))};
    return activity_is_busy() || steady::now() - turned < longest_turn;
}

} // namespace kestrel
