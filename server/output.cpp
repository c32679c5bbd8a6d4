#include "server/output.h"

#include "server/logs.h"
#include "server/outbox.h"
#include "server/session.h"
#include "server/timebar.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <new>
#include <span>
#include <string>

namespace kestrel {

namespace {

constexpr std::size_t printf_size = 1224; // with the terminator
constexpr std::size_t vprintf_size = 1048;

void log_reply(int cn, std::string_view text) {
    if (!vlog_file)
        return;
    try {
        sv_log(vlog_file, std::to_string(cn) + ":Print:" + sv_masked(text));
    } catch (const std::bad_alloc &) {
        sv_log_lost(vlog_file, ENOMEM); // the session gets its reply all the same
    }
}

// The server's own output, one call one piece.
void print_to_server(std::string_view text) {
    std::string converted;
    for (const char c : text) {
        if (c == '\n')
            converted += '\r';
        converted += c;
    }
    std::fwrite(converted.data(), 1, converted.size(), stdout);
    std::fflush(stdout);
}

// Formats into the buffer; a text that is cut keeps its line end. Returns its length.
__attribute__((format(printf, 2, 0))) int format_text(std::span<char> buffer, const char *format,
                                                      va_list args) {
    const int wanted = std::vsnprintf(buffer.data(), buffer.size(), format, args);
    if (wanted < 0 || static_cast<std::size_t>(wanted) < buffer.size())
        return std::max(wanted, 0);
    if (std::string_view(format).ends_with('\n'))
        buffer[buffer.size() - 2] = '\n';
    return static_cast<int>(buffer.size() - 1);
}

__attribute__((format(printf, 3, 0))) int print_formatted(int cn, std::span<char> buffer, const char *format,
                                                          va_list args) {
    const int length = format_text(buffer, format, args);
    sv_print(cn, {buffer.data(), static_cast<std::size_t>(length)});
    return length;
}

bool is_slot(int cn) {
    return cn >= 0 && cn < sv_max_clients;
}

} // namespace

int sv_writeln(int cn, const char *buffer, std::size_t length) {
    if (cn < 0 && !use_network && sv_is_valid(0))
        cn = 0; // the same terminal, in the same order
    if (cn < 0)
        print_to_server({buffer, length});
    else if (cn >= sv_max_clients ||
             !outbox_append(cn, {buffer, length}, {.crlf = true, .open_line = timebar_line()}))
        return -1;
    return static_cast<int>(length);
}

int sv_print(int cn, std::string_view text) {
    log_reply(cn, text);
    return sv_writeln(cn, text.data(), text.size());
}

int sv_printf(int cn, const char *format, ...) {
    std::array<char, printf_size> buffer;
    va_list args;
    va_start(args, format);
    const int length = print_formatted(cn, buffer, format, args);
    va_end(args);
    return length;
}

int sv_vprintf(int cn, const char *format, va_list args) {
    std::array<char, vprintf_size> buffer;
    return print_formatted(cn, buffer, format, args);
}

int sv_write(int cn, const void *buffer, std::size_t length) {
    if (cn < 0)
        return static_cast<int>(length);
    if (!is_slot(cn) || !outbox_append(cn, {static_cast<const char *>(buffer), length}, {}))
        return -1;
    return static_cast<int>(length);
}

void sv_flush(int cn) {
    if (sv_is_valid(cn))
        outbox_flush(cn);
}

void sv_flush_all(int cn) {
    if (!outbox_attention())
        return;
    sv_flush(cn);
    outbox_try_all();
}

} // namespace kestrel
