#include "instruments/bench/keithley.h"

#include "server/output.h"

#include <cstdarg>
#include <cstdio>
#include <vector>

namespace kestrel::bench {

namespace {

constexpr int telnet_port = 23;

bool place_fits(int cn, const open_wishes &w) {
    if (!*w.host && (w.telnet || w.tcp_port)) {
        sv_printf(cn, "! ERROR: Please specify ip-addr, too\n");
        return false;
    }
    if (w.tcp_port && (*w.tcp_port < 1 || *w.tcp_port > 65535)) {
        sv_printf(cn, "! ERROR: Expected ip-port in range 1..65535, not %d\n", *w.tcp_port);
        return false;
    }
    return true;
}

} // namespace

bool keithley_open(int cn, line &l, logger &log, std::string &device, const char *instrument,
                   const open_wishes &w) {
    if (line_is_open(l, {.cn = cn})) {
        sv_printf(cn, "# %s is already open\n", l.name.c_str());
        return false;
    }
    if (!place_fits(cn, w))
        return false;
    logger_end(cn, log);
    line_close(l);
    if (*w.port)
        device = w.port;
    connection link =
        *w.host ? open_tcp(cn, w.host, w.telnet ? telnet_port : w.tcp_port.value_or(w.usual_port), instrument)
                : open_serial(cn, device, w.speed);
    if (!link.fd)
        return false;
    l.debug = w.debug;
    line_opened(l, std::move(link));
    return true;
}

bool is_one_command(int cn, const char *text) {
    for (const char *c = text; *c; ++c) {
        if (static_cast<unsigned char>(*c) < ' ') {
            sv_printf(cn, "! ERROR: A command is one line without control characters\n");
            return false;
        }
    }
    return true;
}

std::string text_of(const char *format, ...) {
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text(static_cast<std::size_t>(length > 0 ? length : 0) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, again);
    va_end(again);
    text.pop_back();
    return text;
}

} // namespace kestrel::bench
