#include "server/options.h"

#include "server/output.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace kestrel {

int user_default_port = 1972;
const char *user_default_startup_file = ".kestrel.inc";
server_options sv_options;
const char *const sv_credit = "Data acquisition server for X-ray detector systems";

namespace {

[[noreturn]] void usage() {
    std::fprintf(stderr, "%s\n", sv_credit);
    std::fprintf(stderr, "The following arguments are understood by the server directly, and not passed\n"
                         "to the main program:\n");
    std::fprintf(stderr, "  -port[=<nn>]      Start up in server mode on port nn (default: %d)\n",
                 user_default_port);
    std::fprintf(stderr, "  -startup[=<name>] Execute given start-up file (default: %s)\n",
                 user_default_startup_file);
    std::fprintf(stderr, "  -log[=<name>]     Log commands to stdout or to the given file\n"
                         "  -vlog[=<name>]    Verbose Log commands to stdout or to the given file\n"
                         "  -detach           Detach from the terminal (only in server mode)\n");
    std::exit(1);
}

std::FILE *open_log(std::string_view name) {
    std::FILE *file = std::fopen(std::string(name).c_str(), "we");
    if (file)
        return file;
    std::fprintf(stderr, "Cannot open log file '%.*s': %s\n", static_cast<int>(name.size()), name.data(),
                 std::strerror(errno));
    std::exit(1);
}

bool same_file(std::FILE *a, std::FILE *b) {
    if (a == b)
        return true;
    struct stat sa {};
    struct stat sb {};
    return ::fstat(::fileno(a), &sa) == 0 && ::fstat(::fileno(b), &sb) == 0 && S_ISREG(sa.st_mode) &&
           sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

std::optional<std::string_view> value_of(std::string_view argument, std::string_view prefix) {
    if (!argument.starts_with(prefix))
        return std::nullopt;
    return argument.substr(prefix.size());
}

bool take_port(std::string_view digits) {
    int port = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
    if (error != std::errc() || end != digits.data() + digits.size() || port < 0 || port > 65535)
        return false;
    sv_options.port = port;
    return true;
}

void set_startup(std::string_view name) {
    sv_options.startup = true;
    sv_options.startup_file = name;
}

// True when the server understands the argument.
bool take_option(std::string_view argument) {
    if (argument == "-server?")
        usage();
    if (const auto digits = value_of(argument, "-port="))
        return take_port(*digits);
    if (argument == "-port")
        sv_options.port = user_default_port;
    else if (const auto startup = value_of(argument, "-startup="))
        set_startup(*startup);
    else if (argument == "-startup")
        set_startup(user_default_startup_file);
    else if (const auto log = value_of(argument, "-log="))
        log_file = open_log(*log);
    else if (argument == "-log")
        log_file = stdout;
    else if (const auto vlog = value_of(argument, "-vlog="))
        vlog_file = open_log(*vlog);
    else if (argument == "-vlog")
        vlog_file = stdout;
    else if (argument == "-detach")
        sv_options.detach = 1;
    else
        return false;
    return true;
}

} // namespace

void sv_parse_options(int &argc, char **argv) {
    int kept = 1;
    for (int i = 1; i < argc; ++i) {
        if (!take_option(argv[i]))
            argv[kept++] = argv[i];
    }
    if (argc > kept)
        argv[kept] = nullptr;
    argc = std::min(argc, kept);
    if (!log_file || !vlog_file || !same_file(log_file, vlog_file))
        return;
    std::fprintf(stderr, "Cannot log anbd verbose log to same file, so doing verbose log\n");
    if (log_file != stdout && log_file != vlog_file)
        std::fclose(log_file);
    log_file = nullptr;
}

} // namespace kestrel
