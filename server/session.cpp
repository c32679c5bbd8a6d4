#include "server/activity.h"
#include "server/client_descriptor.h"
#include "server/hooks.h"

#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace kestrel {

client_descriptor client[sv_max_clients];
int use_network = 0;
int listen_socket = -1;
int nr_conns = 0;
int close_server = 0;

namespace {

// The slot as it was before its first use; its buffers, history and candidates are freed.
void clear_slot(client_descriptor &c) {
    const std::lock_guard lock(c.output_mutex);
    outbox_discard(c.outbox);
    session_fields &fields = c;
    // Moved out first: a string that is only assigned an empty one keeps its memory.
    const session_fields gone(std::move(fields));
    fields = session_fields{};
}

void disconnect_network_client(int cn) {
    client_descriptor &c = client[cn];
    if (close_server)
        outbox_try(cn); // 339 peers that do not read would hold up the shutdown
    else
        outbox_flush(cn);
    sv_channel_close(c.channel);
    const bool counted = c.is_socket; // the start-up file's session has the terminal, and keeps it
    const int fd = sv_input_fd(c);
    clear_slot(c); // before the descriptor's number can come back with another peer
    if (counted) {
        activity_close(cn);
        ::shutdown(fd, SHUT_RDWR);
        ::close(fd);
        --nr_conns;
    }
    std::printf("%d: Disconnected\n", cn);
    if (sv_hooks.user_disconnect)
        sv_hooks.user_disconnect(cn);
}

} // namespace

client_descriptor *sv_get_descriptor(int cn) {
    return &client[cn];
}

void sv_fill_slot(int cn, int in, int out) {
    client_descriptor &c = client[cn];
    clear_slot(c);
    const std::lock_guard lock(c.output_mutex);
    outbox_open(c.outbox);
    c.in = in;
    c.out = out;
    c.is_socket = in == out;
    c.valid = 1;
}

void sv_free_slot(int cn) {
    clear_slot(client[cn]);
}

void sv_disconnect_client(int cn) {
    if (!sv_is_valid(cn))
        return;
    if (use_network) {
        disconnect_network_client(cn);
    } else {
        close_server = 1; // a script goes on to its end, as after a shutdown
    }
}

bool sv_is_valid(int cn) {
    return cn >= 0 && cn < sv_max_clients && client[cn].valid != 0;
}

bool sv_is_ended(int cn) {
    return !sv_is_valid(cn) || client[cn].ended;
}

void sv_set_radix(int cn, int radix) {
    if (sv_is_valid(cn) && (radix == 2 || radix == 10 || radix == 16))
        client[cn].radix = radix;
}

int sv_get_radix(int cn) {
    return sv_is_valid(cn) ? client[cn].radix : 10;
}

void sv_stop_server() {
    close_server = 1;
}

void sv_die(int status) {
    std::fflush(nullptr);
    ::_exit(status);
}

} // namespace kestrel
