// tests: a real session whose replies a unit test reads back. Uses server/.
#pragma once

#include "server/client_descriptor.h"
#include "server/output.h"

#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrel {

// Session 1 on one end of a socket pair; replies() takes what it has been sent, CR removed.
class session_capture {
  public:
    static constexpr int cn = 1;

    session_capture() {
        use_network = 1;
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_) == 0)
            sv_fill_slot(cn, ends_[0], ends_[0]);
    }
    ~session_capture() {
        client[cn].valid = 0;
        ::close(ends_[0]);
        ::close(ends_[1]);
    }
    session_capture(const session_capture &) = delete;
    session_capture &operator=(const session_capture &) = delete;

    std::string replies() {
        sv_flush(cn);
        std::string text;
        char block[4096];
        for (ssize_t n; (n = ::read(ends_[1], block, sizeof block)) > 0;)
            text.append(block, static_cast<std::size_t>(n));
        std::erase(text, '\r');
        return text;
    }

    void type(const std::string &text) { (void)!::write(ends_[1], text.data(), text.size()); }

  private:
    int ends_[2] = {-1, -1};
};

} // namespace kestrel
