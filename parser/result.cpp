#include "parser/result.h"

#include "server/output.h"

#include <charconv>
#include <cstdlib>
#include <string>

namespace kestrel {

namespace {

std::string binary_digits(int value) {
    std::string digits;
    for (int bit = 31; bit >= 0; --bit)
        digits += static_cast<unsigned>(value) >> bit & 1 ? '1' : '0';
    return digits;
}

[[noreturn]] void bad_radix() {
    std::fprintf(stderr, "parser: radix must be 2, 10 or 16.\n");
    std::exit(1);
}

void print_integer(int cn, int value, int radix) {
    switch (radix) {
    case 10: {
        char line[16] = "* ";
        char *const end = std::to_chars(line + 2, line + 15, value).ptr;
        *end = '\n';
        sv_print(cn, {line, end + 1});
        return;
    }
    case 16:
        sv_printf(cn, "* $%x\n", static_cast<unsigned>(value));
        return;
    case 2:
        sv_printf(cn, "* #%s\n", binary_digits(value).c_str());
        return;
    default:
        bad_radix();
    }
}

void log_integer(int value, int radix, std::FILE *log) {
    if (radix == 10)
        std::fprintf(log, "=> %d", value);
    else if (radix == 16)
        std::fprintf(log, "=> $%x", static_cast<unsigned>(value));
    else
        std::fprintf(log, "=> #%s", binary_digits(value).c_str());
}

void vlog_integer(int cn, int value, int radix, std::FILE *vlog) {
    if (radix == 10)
        std::fprintf(vlog, "%d:Ret => %d\n", cn, value);
    else if (radix == 16)
        std::fprintf(vlog, "%d:Ret => $%x\n", cn, static_cast<unsigned>(value));
    else
        std::fprintf(vlog, "%d:Ret => #%s\n", cn, binary_digits(value).c_str());
}

} // namespace

void result_print(int cn, char type, const pt_result &result, int radix) {
    switch (type) {
    case 0:
        return;
    case 'd':
        print_integer(cn, result.i, radix);
        return;
    case 'g':
    case 'f':
        sv_printf(cn, "* %g\n", result.d);
        return;
    default:
        if (result.s)
            sv_print(cn, "* \"" + *result.s + "\"\n");
        else
            sv_printf(cn, "* (null)\n");
    }
}

void result_log(int cn, char type, const pt_result &result, int radix, std::FILE *log, std::FILE *vlog) {
    if (!type)
        return;
    const bool text = type == 's' || type == 'q';
    if (log) {
        if (type == 'd')
            log_integer(result.i, radix, log);
        else if (!text)
            std::fprintf(log, "=> %g", result.d);
        else if (result.s)
            std::fprintf(log, "=> \"%s\"", result.s->c_str());
        else
            std::fprintf(log, "* (null)");
        std::fflush(log);
    }
    if (vlog) {
        if (type == 'd')
            vlog_integer(cn, result.i, radix, vlog);
        else if (!text)
            std::fprintf(vlog, "%d:Ret => %g", cn, result.d);
        else if (result.s)
            std::fprintf(vlog, "%d:Ret => \"%s\"\n", cn, result.s->c_str());
        else
            std::fprintf(vlog, "%d:Ret * (null)\n", cn);
        std::fflush(vlog);
    }
}

void result_store(char type, pt_result &result, Variable &out) {
    switch (type) {
    case 0:
        return;
    case 'd':
        out.type = vt_int;
        out.IntVar = result.i;
        return;
    case 'g':
    case 'f':
        out.type = vt_double;
        out.DoubleVar = result.d;
        return;
    default:
        out.type = type == 'q' ? vt_qualifier : vt_string;
        out.StringVar = result.s ? std::move(*result.s) : "(null)";
    }
}

} // namespace kestrel
