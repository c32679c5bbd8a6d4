// kestrel-worker SITE: fits the blocks of spectra that `peak-fit workers` sends to a site, on one processor.
#include "stream/fits/worker.h"

#include <cstdio>
#include <new>

namespace {

volatile std::sig_atomic_t quit = 0;

void ask_to_quit(int) {
    quit = 1;
}

void install_signals() {
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = ask_to_quit;
    action.sa_flags = static_cast<int>(SA_RESETHAND); // the second one ends it at once
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    action.sa_flags = 0;
    ::sigaction(SIGPIPE, &action, nullptr);
}

} // namespace

int main(int argc, char **argv) {
    using namespace kestrel::stream;
    if (argc != 2 || *argv[1] == '-' || *argv[1] == '\0') {
        std::fprintf(stderr, "Usage: %s HOST:PORT or unix:/PATH, and #PREFIX\n", argv[0]);
        return 2;
    }
    std::string cause;
    const auto site = broker_site_of(argv[1], cause);
    if (!site) {
        std::fprintf(stderr, "! %s\n", cause.c_str());
        return 2;
    }
    install_signals();
    try {
        fit_worker worker(*site, quit);
        std::printf("# Worker %s at %s\n", worker.name().c_str(), site->text().c_str());
        std::fflush(stdout);
        worker.run();
    } catch (const std::bad_alloc &) {
        std::fprintf(stderr, "! No memory for a block\n");
        return 1;
    }
    return 0;
}
