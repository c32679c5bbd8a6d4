#include "display/server_watch.h"

#include "support/control_client.h"
#include "support/fd.h"

#include <chrono>
#include <poll.h>
#include <sys/eventfd.h>

namespace kestrel::display {

namespace {

constexpr std::chrono::milliseconds patience{2000};
constexpr int pause_ms = 1000;

} // namespace

server_watch::server_watch(std::string path)
    : path_(std::move(path)), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread_([this] { ask_for_ever(); }) {}

server_watch::~server_watch() {
    ::eventfd_write(wake_, 1);
    thread_.join();
    ::close(wake_);
}

server_words server_watch::words() const {
    const std::lock_guard guard(mutex_);
    return words_;
}

void server_watch::ask_for_ever() {
    pollfd wake{wake_, POLLIN, 0};
    do {
        server_words fresh;
        fresh.answers = control_ask(path_, "status", patience, fresh.status) &&
                        control_ask(path_, "metrics", patience, fresh.metrics);
        if (!fresh.answers && fresh.status.starts_with("server "))
            fresh.status = fresh.metrics; // why the second question failed
        if (!fresh.answers)
            fresh.metrics.clear();
        const std::lock_guard guard(mutex_);
        words_ = std::move(fresh);
    } while (::poll(&wake, 1, pause_ms) == 0);
}

} // namespace kestrel::display
