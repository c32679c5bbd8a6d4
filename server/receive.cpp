#include "server/receive.h"

#include "server/client_descriptor.h"
#include "server/interrupt.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr std::size_t block_size = 64 * 1024;
constexpr std::size_t kept_capacity = 4096; // of a receive buffer that is used up

} // namespace

std::string_view sv_received(const receive_buffer &buffer) {
    return std::string_view(buffer.bytes).substr(buffer.taken);
}

void sv_take(receive_buffer &buffer, std::size_t count) {
    buffer.taken += count;
    if (buffer.taken < buffer.bytes.size())
        return;
    buffer.taken = 0;
    buffer.bytes.clear();
    if (buffer.bytes.capacity() > kept_capacity)
        buffer.bytes.shrink_to_fit();
}

int sv_input_fd(const client_descriptor &c) {
    return c.script.include_lvl > 0 ? c.script.include_top_path : c.in;
}

ssize_t sv_receive(client_descriptor &c) {
    static char block[block_size];
    ssize_t n = -1;
    do {
        n = ::read(sv_input_fd(c), block, sizeof block);
    } while (n < 0 && errno == EINTR && sv_quit == 0);
    if (n <= 0)
        return n;
    try {
        c.received.bytes.append(block, static_cast<std::size_t>(n));
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -1;
    }
    return n;
}

bool sv_peer_is_gone(int error) {
    static constexpr int gone[] = {EINVAL,       EBADF,       ECONNABORTED, ECONNRESET,   ENOTCONN,
                                   ECONNREFUSED, EPIPE,       ETIMEDOUT,    EHOSTUNREACH, EHOSTDOWN,
                                   ENETDOWN,     ENETUNREACH, ENETRESET};
    return std::find(std::begin(gone), std::end(gone), error) != std::end(gone);
}

} // namespace kestrel
