// Texts: formatted printing, text files, encoded passwords.
#include "parser/builtins.h"
#include "parser/qualifiers.h"
#include "parser/text_format.h"
#include "server/input.h"
#include "server/output.h"
#include "server/session.h"
#include "support/base64.h"
#include "support/file_io.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace kestrel {

namespace {

unique_file open_text_file(int cn, const char *name, const char *mode) {
    unique_file file = open_stream(name, mode);
    if (!file)
        sv_print(cn, std::string("! Cannont open File ") + name + " in mode " + mode + "\n");
    return file;
}

// Closes the file and says whether everything written to it has arrived: a full disk may show only now.
bool close_text_file(int cn, unique_file file) {
    const bool wrote = std::ferror(file.get()) == 0;
    const bool closed = std::fclose(file.release()) == 0;
    if (!wrote || !closed)
        sv_printf(cn, "! Error on write\n");
    return wrote && closed;
}

constexpr std::size_t printf_result_max = 1000;
constexpr pt_format printf_format(
    "%s +%v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v %v%v %v %v %v %v %v %v %v %v %v %v %v %v "
    "%v %v %v %v %v %v %v %v %v direct file %s append = %s");
using printf_quals = pt_qualifiers<printf_format>;

std::vector<PE_Value> given_values(std::span<const pt_value> args) {
    std::vector<PE_Value> values;
    for (const pt_value &arg : args) {
        if (!arg.type)
            break;
        if (arg.type == 'd')
            values.push_back(PE_Value::of(arg.i));
        else if (arg.type == 'f')
            values.push_back(PE_Value::of(arg.d));
        else
            values.push_back(PE_Value::of(std::string(arg.s)));
    }
    return values;
}

pt_string print_text(const printf_quals &q, int cn, const char *format, std::span<const pt_value> args) {
    std::string error;
    std::optional<std::string> text = format_text(format, given_values(args), printf_result_max, error);
    if (!text) {
        sv_printf(cn, "! %s\n", error.c_str());
        return std::nullopt;
    }
    if (q.given("direct"))
        sv_print(cn, "# " + *text + "\n");
    if (q.given("file")) {
        unique_file file = open_text_file(cn, q.text("file"), q.given("append") ? "a" : "w");
        if (!file)
            return "ERROR";
        std::fputs((*text + "\n").c_str(), file.get());
        close_text_file(cn, std::move(file));
    }
    return text;
}

pt_string printf_command(int quals, int cn, const char *format, std::span<const pt_value> args) {
    const printf_quals q(quals);
    try {
        return print_text(q, cn, format, args);
    } catch (const std::bad_alloc &) {
        sv_printf(cn, "! Cannot malloc space for printf command\n");
        return std::nullopt;
    }
}

constexpr std::size_t password_code_max = 64;

pt_string enc_password(int, int cn, const char *password) {
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(password);
    std::string text = base64_encode({bytes, std::strlen(password)});
    if (text.size() > password_code_max) {
        sv_printf(cn, "ERROR : Cannot code password\n");
        return std::nullopt;
    }
    return text;
}

constexpr const char *end_of_text = ":EOF";

// Takes the session's following lines (in a script, the script's) into the file, up to ":EOF".
int ascii_write_file(int, int cn, const char *name) {
    unique_file file = open_text_file(cn, name, "w");
    if (!file)
        return -1;
    char line[sv_line_max + 1];
    while (sv_getline(cn, line, sizeof line)) {
        if (std::strcmp(line, end_of_text) == 0)
            return close_text_file(cn, std::move(file)) ? 0 : -1;
        std::fputs(line, file.get());
        std::fputc('\n', file.get());
    }
    if (sv_is_valid(cn))
        sv_printf(cn, "! Input ended before '%s'\n", end_of_text);
    return -1;
}

constinit const PARSE_TREE ascii_write_tree[] = {
    pt_command<ascii_write_file>(
        "file", "%s = %d", "write subsequent lines into an ASCII file, terminate with ':EOF'", "file name"),
    pt_end(),
};

constinit const PARSE_TREE ascii_tree[] = {
    pt_subtree("write", ascii_write_tree, "prefix for ASCII write functions"),
    pt_end(),
};

} // namespace

constinit const PARSE_TREE row_printf = pt_command<printf_command>(
    "printf", printf_format, "C printf function",
    "Format string/Variable args/////////////////////////////////////////"
    "/Print output directly aswell as returning string/Print output to file <name>/Append it");
constinit const PARSE_TREE row_enc_password =
    pt_command<enc_password>("enc-password", "%s = %s", "BaSe64 encode password", "password");
constinit const PARSE_TREE row_ascii = pt_subtree("ascii", ascii_tree, "prefix for ASCII-specific functions");

} // namespace kestrel
