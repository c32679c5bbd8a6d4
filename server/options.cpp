#include "server/options.h"

#include "server/logs.h"
#include "support/fd.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace kestrel {

int user_default_port = 1972;
const char *user_default_startup_file = ".kestrel.inc";
server_options sv_options;
const char *const sv_credit = "Data acquisition server for X-ray detector systems";

namespace {

// A FIFO that nobody reads fails at once instead of holding up the start.
std::FILE *open_log(std::string_view name) {
    constexpr mode_t mode = 0666;
    unique_fd fd(
        ::open(std::string(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, mode));
    if (fd && ::fcntl(fd.get(), F_SETFL, O_WRONLY) == 0) { // written like any file from here on
        if (std::FILE *file = ::fdopen(fd.get(), "w")) {
            fd.release();
            return file;
        }
    }
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

using given_value = std::optional<std::string_view>; // what stands behind "=", nothing without one

bool take_port(given_value digits) {
    int port = user_default_port;
    if (digits) {
        const char *const last = digits->data() + digits->size();
        const auto [end, error] = std::from_chars(digits->data(), last, port);
        if (error != std::errc() || end != last || port < 0 || port > 65535)
            return false;
    }
    sv_options.port = port;
    return true;
}

bool take_startup(given_value name) {
    sv_options.startup = true;
    sv_options.startup_file = name.value_or(user_default_startup_file);
    return true;
}

// The last of several options for one log holds; the files of the others are closed.
bool take_log(std::FILE *&log, given_value name) {
    sv_close_log(log);
    log = name ? open_log(*name) : stdout;
    return true;
}

bool take_detach(given_value) {
    sv_options.detach = 1;
    return true;
}

bool take_listen(given_value address) {
    return address && sv_parse_address(*address, sv_options.listen);
}

bool take_allow(given_value networks) {
    return networks && sv_parse_networks(*networks, sv_options.allowed);
}

bool take_text(std::string &text, given_value given) {
    if (given)
        text = *given;
    return given && !given->empty();
}

[[noreturn]] bool usage(given_value);

enum class needs { nothing, value };

struct option {
    std::string_view word;
    const char *value; // as the usage shows it, null for an option that takes none
    const char *help;
    std::string (*fallback)(); // the value of the bare option, for the usage; may be null
    bool (*take)(given_value);
    needs bare = needs::nothing; // value: it is none without one
};

// In the order of the usage, which leaves out those without help.
constinit const option options[] = {
    {"-port", "nn", "Start up in server mode on port nn", [] { return std::to_string(user_default_port); },
     take_port},
    {"-startup", "name", "Execute given start-up file", [] { return std::string(user_default_startup_file); },
     take_startup},
    {"-log", "name", "Log commands to stdout or to the given file", nullptr,
     [](given_value name) { return take_log(log_file, name); }},
    {"-vlog", "name", "Verbose Log commands to stdout or to the given file", nullptr,
     [](given_value name) { return take_log(vlog_file, name); }},
    {"-detach", nullptr, "Detach from the terminal (only in server mode)", nullptr, take_detach},
    {"-listen", "address", "Take sessions at this address only", nullptr, take_listen, needs::value},
    {"-allow", "networks", "Take sessions from these networks only", nullptr, take_allow, needs::value},
    {"-control", "path", "Put the control socket there", nullptr,
     [](given_value path) { return take_text(sv_options.control, path); }, needs::value},
    {"-control-group", "name", "Let this group use the control socket, too", nullptr,
     [](given_value name) { return take_text(sv_options.control_group, name); }, needs::value},
    {"-server?", nullptr, nullptr, nullptr, usage},
};

bool usage(given_value) {
    std::fprintf(stderr, "%s\n", sv_credit);
    std::fprintf(stderr, "The following arguments are understood by the server directly, and not passed\n"
                         "to the main program:\n");
    for (const option &o : options) {
        if (!o.help)
            continue;
        std::string form(o.word);
        if (o.value)
            form += o.bare == needs::value ? std::string("=<") + o.value + ">"
                                           : std::string("[=<") + o.value + ">]";
        const std::string bare = o.fallback ? " (default: " + o.fallback() + ")" : "";
        std::fprintf(stderr, "  %-17s %s%s\n", form.c_str(), o.help, bare.c_str());
    }
    std::exit(1);
}

// True when the server understands the argument.
bool take_option(std::string_view argument) {
    for (const option &o : options) {
        if (argument == o.word)
            return o.take(std::nullopt);
        if (o.value && argument.starts_with(o.word) && argument[o.word.size()] == '=')
            return o.take(argument.substr(o.word.size() + 1));
    }
    return false;
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
    if (log_file == vlog_file)
        log_file = nullptr;
    else
        sv_close_log(log_file);
}

} // namespace kestrel
