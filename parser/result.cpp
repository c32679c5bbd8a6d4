#include "parser/result.h"

#include "server/logs.h"
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

std::string real_text(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::string integer_text(int value, int radix) {
    char text[16];
    if (radix == 2)
        return "#" + binary_digits(value);
    std::snprintf(text, sizeof text, radix == 16 ? "$%x" : "%d", value);
    return text;
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
    if (!type || (!log && !vlog))
        return;
    const bool text = type == 's' || type == 'q';
    std::string shown;
    if (type == 'd')
        shown = "=> " + integer_text(result.i, radix);
    else if (!text)
        shown = "=> " + real_text(result.d);
    else
        shown = result.s ? "=> \"" + sv_masked(*result.s) + "\"" : "* (null)";
    if (log)
        sv_log(log, shown);
    if (vlog) // readers of this log know a real result by its missing line end
        sv_log(vlog, std::to_string(cn) + ":Ret " + shown + (type == 'd' || text ? "\n" : ""));
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
