// kestrel-try-image SECONDS [DATASET]: opens standard input as a detector image file and reads all of its data, as the server
// will. Ends with 0 when all went well, with 1 and the cause on standard output when not, or by a signal: the server
// starts it anew for each file and survives what it does not. It keeps to its limits by itself, so that it ends, too,
// when the server has gone.
#include "support/tessera.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace {

constexpr rlim_t memory_limit = rlim_t{2048} << 20;
constexpr const char *needs_memory = "needs more than 2048 MB of memory to be read";

// A sanitizer reserves far more address space than any limit for the program itself.
#ifdef KESTREL_SANITIZED
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

bool limit(int resource, rlim_t value) {
    const rlimit both{value, value};
    return ::setrlimit(static_cast<__rlimit_resource_t>(resource), &both) == 0;
}

bool keep_limits(const char *seconds) {
    const rlim_t cpu = std::strtoul(seconds, nullptr, 10);
    const rlimit processor{cpu, cpu + 1}; // the first sends SIGXCPU, the second kills
    return ::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && limit(RLIMIT_CORE, 0) &&
           ::setrlimit(RLIMIT_CPU, &processor) == 0 && (sanitized || limit(RLIMIT_AS, memory_limit));
}

int refuse(const char *cause) {
    std::puts(cause);
    return 1;
}

int try_image(const char *dataset) {
    kestrel::tessera_reader reader;
    std::string error;
    errno = 0;
    if (reader.open("/proc/self/fd/0", dataset, error) && reader.read_all(error))
        return 0;
    return refuse(errno == ENOMEM ? needs_memory : error.c_str());
}

int try_within(int argc, char **argv) {
    if (argc < 2 || argc > 3 || !keep_limits(argv[1]))
        return refuse("cannot be tried within limits");
    try {
        return try_image(argc == 3 ? argv[2] : "");
    } catch (const std::bad_alloc &) {
        return refuse(needs_memory);
    }
}

} // namespace

int main(int argc, char **argv) {
    std::signal(SIGSEGV, SIG_DFL); // of which a sanitizer makes an ordinary end
    const int status = try_within(argc, argv);
    std::fflush(stdout);
    std::_Exit(status); // nothing is tidied up that a corrupt file may have spoiled
}
