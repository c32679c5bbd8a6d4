// server: from the command line to one of the two loops.
#include "server/hooks.h"
#include "server/interrupt.h"
#include "server/loops.h"
#include "server/options.h"
#include "server/session.h"
#include "support/fd.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>

namespace kestrel {

server_hooks sv_hooks;
int (*user_select_add)(fd_set *set, int highest) = nullptr;
void (*user_select_test)(const fd_set *set) = nullptr;

namespace {

// A session must never get a standard descriptor's number: what the parent left closed is taken.
void take_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= 2)
        fd = ::open("/dev/null", O_RDWR);
    if (fd > 2)
        ::close(fd);
}

void raise_descriptor_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

void install_signals() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = quit_handler;
    ::sigaction(SIGINT, &action, nullptr);
    action.sa_handler =
        SIG_DFL; // commands of the operating system are waited for, whoever started this process
    ::sigaction(SIGCHLD, &action, nullptr);
    action.sa_handler = SIG_IGN;
    ::sigaction(SIGPIPE, &action, nullptr);
    ::sigaction(SIGXFSZ, &action, nullptr); // a limit of size (ulimit -f) is a full disk like another
}

void detach_from_terminal() {
    std::fflush(stdout);
    std::fflush(stderr);
    for (int fd = 0; fd <= 2; ++fd)
        ::close(fd);
    for (int fd = 0; fd <= 2; ++fd)
        [[maybe_unused]] const int taken = ::open("/dev/null", O_RDWR);
}

} // namespace

void sv_print_banner(const char *program, const char *mode) {
    std::printf("%s\n", std::string(70, '-').c_str());
    std::printf("%s: %s\n", program, sv_credit);
    std::printf("%s\n", mode);
    std::printf("Use ^C to quit scripts, wait etc, ^\\ to really quit the server\n");
    std::fflush(stdout);
}

void sv_run_startup_file() {
    if (!sv_options.startup || !sv_hooks.include_startup)
        return;
    const char *name = sv_options.startup_file.c_str();
    unique_fd file(::open(name, O_RDONLY | O_CLOEXEC));
    if (!file)
        return;
    std::printf("Executing initialization commands from %s\n", name);
    std::fflush(stdout);
    sv_hooks.include_startup(0, name, file.release());
}

int sv_main(int argc, char **argv) {
    take_standard_descriptors();
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // operators and programs read it through pipes
    sv_parse_options(argc, argv);
    raise_descriptor_limit();
    use_network = sv_options.port == 0 ? 0 : 1; // before threads are started that print
    if (sv_hooks.user_main)
        sv_hooks.user_main(argc, argv);
    install_signals();
    if (sv_options.detach && sv_options.port >= 1)
        detach_from_terminal();
    if (sv_options.port == 0)
        direct_loop(argv[0]);
    else
        network_loop(argv[0], sv_options.port);
    return 0;
}

} // namespace kestrel
