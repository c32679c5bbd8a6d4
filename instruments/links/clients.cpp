#include "instruments/links/clients.h"

#include "server/input.h"
#include "server/interrupt.h"
#include "server/logs.h"
#include "server/output.h"
#include "server/session.h"
#include "server/timebar.h"
#include "server/wait.h"
#include "support/metrics_text.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace kestrel::links {

namespace {

struct client_state {
    std::atomic<int> connected{0}; // other threads look at it
    cln_link socket{};
    int session = -1; // owns the current exchange
    unsigned long generation = 0;
    int errors = 0; // "!" lines in the current exchange
};

client_state client[link_count];

// ---------------------------------------------------------------- what the remote says

void on_information(int link, const std::string &text) {
    sv_print(client[link].session, "# - " + text + "\n");
}

void on_error(int link, const std::string &text) {
    ++client[link].errors;
    if (client[link].session < 0)
        std::fprintf(stderr, "Error message from unknown client #%d:\n    %s\n", link, text.c_str());
    else
        sv_print(client[link].session, "! - " + text + "\n");
}

void on_progress(int link, const remote_progress &p) {
    const std::string name = clientconfig[link].name;
    const std::string label = p.label.empty() ? name : name + "-" + p.label;
    sv_timebar(client[link].session, p.done, p.total, label.c_str());
}

void on_error_code(int link, const char *text) {
    sv_printf(client[link].session, "! %s\n", text);
}

int on_question(int link, const std::string &) {
    return sv_wait_retry(client[link].session);
}

constexpr cln_handlers handlers = {on_information, on_error, on_progress, on_error_code, on_question};

// ---------------------------------------------------------------- one exchange

constexpr double resend_pause = 1.0; // seconds

// The exchange's end: its session no longer hears the link.
class ownership {
  public:
    ownership(int cn, int link) : state_(client[link]) {
        state_.session = cn;
        state_.socket.cn = cn;
        state_.errors = 0;
    }
    ~ownership() { state_.session = -1; }
    ownership(const ownership &) = delete;
    ownership &operator=(const ownership &) = delete;

  private:
    client_state &state_;
};

cln_status ready(int cn, int link) {
    const cln_status status = cln_wait_prompt(client[link].socket);
    if (status == cln_status::failed)
        sv_printf(cn, "! Time-out or error before client sent a prompt. Disconnecting.\n");
    return status;
}

// Waits for the prompt, sends, waits for the reply. A link that did not come through is closed, as is one
// that ^C left in the middle of a reply.
cln_status attempt(int cn, int link, const std::string &command) {
    cln_link &socket = client[link].socket;
    cln_status status = ready(cn, link);
    if (status == cln_status::ok)
        status = cln_send(socket, command);
    if (status == cln_status::ok)
        status = cln_wait_reply(socket);
    if (status != cln_status::ok)
        disconnect_from(cn, link);
    return status;
}

std::optional<remote_result> exchange(int cn, int link, const std::string &command, bool resend) {
    const ownership owner(cn, link);
    if (client_connect(cn, link) != 0)
        return std::nullopt;
    cln_status status = attempt(cn, link, command);
    if (status == cln_status::failed && resend) {
        sv_print(cn, "# Trying to resend command '" + sv_masked(command) + "' to client '" +
                         clientconfig[link].name + "'\n");
        if (sv_sleep(cn, resend_pause) != 0 || client_connect(cn, link) != 0)
            return std::nullopt;
        status = attempt(cn, link, command);
    }
    if (status != cln_status::ok)
        return std::nullopt;
    const remote_result &result = client[link].socket.reader.result();
    if (!std::holds_alternative<remote_unknown>(result))
        return result;
    sv_printf(cn, "! %s did not answer with a result\n", clientconfig[link].name);
    disconnect_from(cn, link); // no server of ours
    return std::nullopt;
}

bool fits_a_line(int cn, const std::string &command) {
    if (command.size() <= sv_line_max && command.find_first_of("\r\n") == std::string::npos)
        return true;
    sv_printf(cn, "! A command for another server should be one line of at most %zu characters\n",
              sv_line_max);
    return false;
}

} // namespace

int client_connect(int cn, int link) {
    client_state &state = client[link];
    const link_config &config = clientconfig[link];
    if (state.connected)
        return 0;
    state.socket.number = link;
    state.socket.handlers = &handlers;
    state.socket.cn = cn;
    if (const int error = cln_connect(state.socket, config.host.c_str(), config.port)) {
        sv_printf(cn, "! Can't connect to %s on %s port %d.\n! OS-9 error code: %d.\n", config.name,
                  config.host.c_str(), config.port, error);
        return -1;
    }
    state.connected = 1;
    state.session = cn;
    ++state.generation;
    sv_printf(cn, "# Connected to %s on %s port %d.\n", config.name, config.host.c_str(), config.port);
    return 0;
}

bool connected_to(int link) {
    return client[link].connected;
}
void clients_status(std::string &out) {
    for (int link = 0; link < link_count; ++link) {
        if (client[link].connected)
            out += std::string("link ") + clientconfig[link].key + " connected\n";
    }
}

void clients_metrics(std::string &out) {
    metric_family(out, "kestrel_link_up", "gauge", "1 while the link to another server is open.");
    for (int link = 0; link < link_count; ++link)
        metric_sample(out, "kestrel_link_up", "link=" + metric_quoted(clientconfig[link].key),
                      client[link].connected ? "1" : "0");
}

unsigned long client_generation(int link) {
    return client[link].generation;
}

void disconnect_from(int cn, int link) {
    client_state &state = client[link];
    if (!state.connected)
        return;
    cln_disconnect(state.socket);
    state.connected = 0;
    sv_printf(cn, "# Disconnected from %s.\n", clientconfig[link].name);
}

void client_redefine(int cn, int link, const char *host, int port) {
    if (client[link].connected) {
        const ownership owner(cn, link);
        if (cln_wait_prompt(client[link].socket) == cln_status::ok)
            cln_send(client[link].socket, "quit");
        else
            sv_printf(cn, "! Time-out before client sent a prompt. Disconnecting.\n");
        disconnect_from(cn, link);
    }
    clientconfig[link].host = host;
    clientconfig[link].port = port;
}

std::optional<remote_result> send_exchange(int cn, int link, const std::string &command) {
    if (!fits_a_line(cn, command))
        return std::nullopt;
    return exchange(cn, link, command, true);
}

std::optional<remote_result> send_once(int cn, int link, const std::string &command) {
    return exchange(cn, link, command, false);
}

link_deadline::link_deadline(int link, std::chrono::steady_clock::time_point end) : link_(link) {
    client[link].socket.deadline = end;
}
link_deadline::~link_deadline() {
    client[link_].socket.deadline.reset();
}

int send_same_connection(int cn, int link, unsigned long generation, const std::string &command) {
    if (!client[link].connected || client[link].generation != generation)
        return -1;
    const std::optional<remote_result> result = send_once(cn, link, command);
    return result ? cln_integer(*result) : -1;
}

int send_wait(int cn, int link, const std::string &command) {
    const std::optional<remote_result> result = send_exchange(cn, link, command);
    return result ? cln_integer(*result) : -1;
}

namespace {

// A number cannot be told from a failure's -1, but a failure has a line of its own.
bool remote_failed(int link, const remote_result &result) {
    const int *code = std::get_if<int>(&result);
    return code && *code == -1 && client[link].errors > 0;
}

} // namespace

int send_wait_double(int cn, int link, double &value, const std::string &command) {
    const std::optional<remote_result> result = send_exchange(cn, link, command);
    if (!result || remote_failed(link, *result))
        return -1;
    if (const int *integer = std::get_if<int>(&*result))
        value = *integer;
    else if (const double *real = std::get_if<double>(&*result))
        value = *real;
    else {
        sv_printf(cn, "! %s did not answer with a number\n", clientconfig[link].name);
        return -1;
    }
    return 0;
}

std::optional<std::string> send_wait_string(int cn, int link, const std::string &command) {
    const std::optional<remote_result> result = send_exchange(cn, link, command);
    if (!result)
        return std::nullopt;
    if (const std::string *text = std::get_if<std::string>(&*result))
        return *text;
    sv_printf(cn, "! %s did not answer with a string\n", clientconfig[link].name);
    return std::nullopt;
}

int send_nowait(int cn, int link, const std::string &command) {
    const ownership owner(cn, link);
    if (!fits_a_line(cn, command) || client_connect(cn, link) != 0)
        return -1;
    if (ready(cn, link) == cln_status::ok && cln_send(client[link].socket, command) == cln_status::ok)
        return 0;
    disconnect_from(cn, link);
    return -1;
}

// A line that the remote's command reads has no prompt before it. A prompt there means that the command has ended; what
// was read of it stays for wait_for.
line_sent send_string(int cn, int link, const std::string &text) {
    const ownership owner(cn, link);
    if (!client[link].connected || !fits_a_line(cn, text))
        return line_sent::failed;
    cln_status status = cln_status::ok;
    if (cln_poll_reply(client[link].socket, status))
        return line_sent::too_late;
    if (status == cln_status::ok)
        status = cln_send_more(client[link].socket, text);
    if (status == cln_status::ok)
        return line_sent::sent;
    disconnect_from(cn, link);
    return line_sent::failed;
}

int wait_for(int cn, int link) {
    const ownership owner(cn, link);
    if (client_connect(cn, link) != 0)
        return -1;
    const reply_reader &reader = client[link].socket.reader;
    const cln_status status = cln_wait_reply(client[link].socket);
    if (status == cln_status::ok && !reader.ended_before())
        return cln_integer(reader.result());
    if (status == cln_status::ok)
        sv_printf(cn, "! %s ended the command before it took all lines\n", clientconfig[link].name);
    disconnect_from(cn, link);
    return -1;
}

// ---------------------------------------------------------------- bulk data

namespace {

constexpr int data_patience_ms = 30'000; // without progress

enum class data_end { complete, short_of_data, link_lost, interrupted };

struct data_transfer {
    char *buffer;
    std::size_t nbytes;
    std::size_t have = 0;
    int error = 0;        // why nothing more will come
    bool replied = false; // the command's reply has ended
};

void read_some(int fd, data_transfer &t) {
    const ssize_t n = ::recv(fd, t.buffer + t.have, t.nbytes - t.have, 0);
    if (n > 0)
        t.have += static_cast<std::size_t>(n);
    else if (n == 0)
        t.error = ENODATA;
    else if (errno != EAGAIN && errno != EINTR)
        t.error = errno;
}

// Waits for whichever speaks first, the data or the link.
wait_result wait_either(int cn, int data, int link) {
    using std::chrono::steady_clock;
    constexpr int slice_ms = 50; // how soon ^C is seen
    sv_flush_all(cn);
    const auto end = steady_clock::now() + std::chrono::milliseconds(data_patience_ms);
    while (steady_clock::now() < end) {
        if (sv_quit)
            return wait_result::interrupted;
        pollfd both[] = {{data, POLLIN, 0}, {link, POLLIN, 0}};
        if (::poll(both, link >= 0 ? 2 : 1, slice_ms) > 0)
            return wait_result::ready;
    }
    return wait_result::timeout;
}

// Receives the data while the link tells how its command goes. When the reply has ended nothing more is sent,
// and what is missing then stays missing.
data_end receive_data(int cn, cln_link &link, int listener, data_transfer &t) {
    unique_fd data;
    while (t.have < t.nbytes && t.error == 0) {
        if (t.replied && !data) {
            data = cln_accept(link, listener);
            if (!data) {
                t.error = ENODATA;
                break;
            }
        }
        switch (wait_either(cn, data ? data.get() : listener, t.replied ? -1 : link.socket.get())) {
        case wait_result::interrupted:
            return data_end::interrupted;
        case wait_result::timeout:
            t.error = ETIMEDOUT;
            continue;
        case wait_result::ready:
            break;
        }
        if (!data)
            data = cln_accept(link, listener);
        else
            read_some(data.get(), t);
        cln_status status = cln_status::ok;
        if (!t.replied)
            t.replied = cln_poll_reply(link, status);
        if (status != cln_status::ok)
            return data_end::link_lost;
    }
    return t.have == t.nbytes ? data_end::complete : data_end::short_of_data;
}

int finish_data(int cn, int link, data_end end, const data_transfer &t) {
    if (end == data_end::short_of_data)
        sv_printf(cn, "! client_get_data: Read error, errno = %d\n", t.error);
    if (end == data_end::interrupted || end == data_end::link_lost) {
        disconnect_from(cn, link); // in the middle of a reply
        return -1;
    }
    if (!t.replied && cln_wait_reply(client[link].socket) != cln_status::ok) {
        disconnect_from(cn, link);
        return -1;
    }
    return end == data_end::complete ? cln_integer(client[link].socket.reader.result()) : -1;
}

} // namespace

int clients_get_data(int cn, int link, unsigned long generation, const std::string &command, void *buffer,
                     std::size_t nbytes) {
    int port = 0;
    const bool same = client[link].connected && client[link].generation == generation;
    const unique_fd listener = same ? cln_listen(client[link].socket, port) : unique_fd();
    if (!listener) {
        sv_printf(cn, "! Couldn't open data port.\n");
        return -1;
    }
    if (send_same_connection(cn, link, generation, "port " + std::to_string(port)) < 0)
        return -1;
    const ownership owner(cn, link);
    cln_link &socket = client[link].socket;
    if (cln_wait_prompt(socket) != cln_status::ok || cln_send(socket, command) != cln_status::ok) {
        disconnect_from(cn, link);
        return -1;
    }
    data_transfer transfer{static_cast<char *>(buffer), nbytes};
    const data_end end = receive_data(cn, socket, listener.get(), transfer);
    return finish_data(cn, link, end, transfer);
}

} // namespace kestrel::links
