#include "server/input.h"

#include "server/client_descriptor.h"
#include "server/logs.h"
#include "server/output.h"
#include "server/wait.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr int control_c = 3;         // a telnet user's interrupt
constexpr int look_around_ms = 1000; // how soon a session that broke meanwhile is noticed
constexpr std::chrono::seconds cursor_report_wait{2};

// Without memory for what was read nobody knows where the next line begins.
read_status lost_in_input(int cn) {
    sv_printf(cn, "! Out of memory, this session is closed\n");
    return read_status::gone;
}

// Waits for one more block of the session's input.
read_status wait_block(int cn) {
    client_descriptor &c = client[cn];
    sv_flush_all(cn);
    for (;;) {
        if (!sv_is_valid(cn) || outbox_look(cn).broken || close_server)
            return read_status::gone;
        const int fd = sv_input_fd(c);
        const wait_result wait = sv_wait_fd(fd, POLLIN, look_around_ms);
        if (wait == wait_result::interrupted)
            return read_status::interrupted;
        if (wait == wait_result::timeout)
            continue;
        const ssize_t n = sv_receive(c);
        if (n > 0)
            return read_status::done;
        if (n == 0)
            return read_status::end;
        if (sv_peer_is_gone(errno) || errno == EIO) // EIO: the terminal hung up
            return read_status::gone;
        if (errno == EAGAIN || errno == EINTR)
            continue;
        if (errno == ENOMEM)
            return lost_in_input(cn);
        const int error = errno;
        std::fprintf(stderr, "Read failed when polling client=%d, path=%d, sock_errno=%d in '_getline'\n", cn,
                     fd, error);
        sv_die(error);
    }
}

// A reading command cannot go on: the session ends with its input. An interrupt ends the command only.
void end_of_reading(int cn, read_status status) {
    if (status == read_status::end)
        std::puts("Inferred disconnect from read returns 0");
    if (status != read_status::end && status != read_status::gone)
        return;
    client[cn].ended = true; // a script that reads in a loop would never end
    sv_disconnect_client(cn);
}

void deliver(int cn, const std::string &reply, const std::string &notice) {
    if (!notice.empty())
        std::fputs(notice.c_str(), stdout);
    if (!reply.empty())
        sv_write(cn, reply.data(), reply.size());
}

// Where the session's terminal echoes by itself, the server does not.
bool echoes(const client_descriptor &c) {
    return c.machine.echo_mode != 0 && (c.is_socket || ::isatty(sv_input_fd(c)) == 0);
}

bool read_script_line(script_file *file, std::string &line) {
    return file && file->read_text(line, answer_max);
}

char *_getline(int cn, char *buffer, std::size_t len, bool use_top) {
    if (!sv_is_valid(cn) || len == 0)
        return nullptr;
    const session_script &script = client[cn].script;
    std::string line;
    read_status status = read_status::done;
    if (script.include_lvl > 0 && !use_top)
        status = read_script_line(script.include, line) ? read_status::done : read_status::end;
    else
        status = sv_read_line(cn, line);
    if (status != read_status::done) {
        end_of_reading(cn, status);
        return nullptr;
    }
    if (log_file)
        sv_log(log_file, std::to_string(cn) + ": " + sv_masked(line) + "\n");
    line.resize(std::min(line.size(), len - 1));
    std::memcpy(buffer, line.c_str(), line.size() + 1);
    return buffer;
}

// Takes "ESC [ row ; column R" out of what is received; the rest stays in order.
std::optional<int> take_cursor_report(receive_buffer &buffer) {
    std::string &bytes = buffer.bytes;
    for (std::size_t at = bytes.find("\x1b[", buffer.taken); at != std::string::npos;
         at = bytes.find("\x1b[", at + 1)) {
        const char *p = bytes.data() + at + 2;
        const char *end = bytes.data() + bytes.size();
        int row = 0;
        int column = 0;
        auto result = std::from_chars(p, end, row);
        if (result.ec != std::errc() || result.ptr == end || *result.ptr != ';')
            continue;
        result = std::from_chars(result.ptr + 1, end, column);
        if (result.ec != std::errc() || result.ptr == end || *result.ptr != 'R')
            continue;
        bytes.erase(at, static_cast<std::size_t>(result.ptr + 1 - (bytes.data() + at)));
        return column;
    }
    return std::nullopt;
}

// The column of the client terminal's cursor, from 1; nothing when no report comes in time.
std::optional<int> ask_cursor_column(int cn) {
    using std::chrono::steady_clock;
    client_descriptor &c = client[cn];
    const auto end = steady_clock::now() + cursor_report_wait;
    sv_write(cn, "\x1b[6n", 4);
    sv_flush_all(cn);
    for (;;) {
        const std::optional<int> column = take_cursor_report(c.received);
        if (column)
            return column;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
        if (left <= 0 || sv_wait_fd(sv_input_fd(c), POLLIN, static_cast<int>(left)) != wait_result::ready)
            return std::nullopt;
        const ssize_t n = sv_receive(c);
        if (n < 0 && errno == ENOMEM)
            end_of_reading(cn, lost_in_input(cn));
        if (n == 0 || (n < 0 && errno != EAGAIN))
            return std::nullopt; // whoever reads next meets the same end
    }
}

// Moves the cursor as far right as it goes: the columns it went are the width.
void measure_client(int cn) {
    const std::optional<int> start = ask_cursor_column(cn);
    if (!start)
        return;
    sv_write(cn, "\x1b[999C", 6);
    const std::optional<int> right = ask_cursor_column(cn);
    if (!right || *right <= *start)
        return;
    const int width = *right - *start;
    const std::string back = "\x1b[" + std::to_string(width) + "D";
    sv_write(cn, back.data(), back.size());
    client[cn].machine.edit.cols = static_cast<std::size_t>(width);
}

void measure_terminal(client_descriptor &c) {
    winsize size{};
    if (::ioctl(c.out, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        c.machine.edit.cols = size.ws_col;
}

// One byte of the session's own, telnet commands and second halves of line ends left out.
read_status read_byte(int cn, unsigned char &byte) {
    client_descriptor &c = client[cn];
    for (;;) {
        if (sv_received(c.received).empty()) {
            const read_status status = wait_block(cn);
            if (status != read_status::done)
                return status;
        }
        byte = static_cast<unsigned char>(sv_received(c.received).front());
        sv_take(c.received, 1);
        std::string reply;
        std::string notice;
        const bool skipped = c.is_socket && sv_input_skips(c.machine, byte, {reply, notice});
        deliver(cn, reply, notice);
        if (!skipped)
            return read_status::done;
    }
}

} // namespace

read_status sv_read_line(int cn, std::string &line) try {
    client_descriptor &c = client[cn];
    for (;;) {
        if (sv_received(c.received).empty()) {
            const read_status status = wait_block(cn);
            if (status != read_status::done)
                return status;
        }
        std::string reply;
        std::string notice;
        std::size_t used = 0;
        const answer_form form{.telnet = c.is_socket, .echo = echoes(c)};
        const input_event event =
            sv_input_answer(c.machine, sv_received(c.received), used, line, form, {reply, notice});
        sv_take(c.received, used);
        deliver(cn, reply, notice);
        if (event == input_event::line)
            return read_status::done;
        if (event == input_event::pause)
            return read_status::interrupted;
    }
} catch (const std::bad_alloc &) {
    return lost_in_input(cn);
}

char *sv_getline(int cn, char *buffer, std::size_t len) {
    return _getline(cn, buffer, len, false);
}
char *sv_getline_top(int cn, char *buffer, std::size_t len) {
    return _getline(cn, buffer, len, true);
}

int sv_getc(int cn) {
    unsigned char byte = 0;
    if (!sv_is_valid(cn))
        return -1;
    const read_status status = read_byte(cn, byte);
    if (status == read_status::done)
        return byte;
    end_of_reading(cn, status);
    return -1;
}

int sv_wait_retry(int cn) {
    sv_printf(cn, "~ Retry (Y/N)\n");
    for (;;) {
        const int byte = sv_getc(cn);
        if (byte < 0 || (byte == control_c && client[cn].machine.echo_mode))
            return -1;
        const int key = std::toupper(byte);
        if (key == 'Y' || key == 'N')
            return key == 'Y' ? 1 : 0;
    }
}

void sv_set_echo(int cn, int on) {
    if (!sv_is_valid(cn))
        return;
    client_descriptor &c = client[cn];
    c.machine.echo_mode = on ? 1 : 0;
    if (on && c.is_socket)
        measure_client(cn);
    else if (on)
        measure_terminal(c);
}

} // namespace kestrel
