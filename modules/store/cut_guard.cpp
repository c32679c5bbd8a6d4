#include "modules/store/cut_guard.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <mutex>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kestrel {

namespace {

// The handler reads these while a thread holds any lock: no locks, no memory, a fixed table.
struct watched {
    std::atomic<std::uintptr_t> start = 0; // 0: free
    std::atomic<std::size_t> size = 0;
    std::atomic<bool> cut = false;
};
std::array<watched, 1024> table;
std::atomic<int> cuts = 0;
std::uintptr_t page_size = 4096;

static_assert(std::atomic<std::uintptr_t>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

watched *find(std::uintptr_t address) {
    for (watched &w : table) {
        const std::uintptr_t start = w.start;
        if (start != 0 && address >= start && address - start < w.size)
            return &w;
    }
    return nullptr;
}

// Zeros from the page of the access to the end of the mapping. Runs in the handler: a bare system call, which a
// sanitizer's mmap is not. Where two threads meet the end at once, the second's zeros cover what the first has written.
bool replace_rest(watched &w, std::uintptr_t address) {
    const std::uintptr_t page = address / page_size * page_size;
    const std::size_t rest = w.start + w.size - page;
    if (::syscall(SYS_mmap, page, rest, PROT_READ | PROT_WRITE,
                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0L) == -1)
        return false;
    w.cut = true;
    cuts.fetch_add(1);
    return true;
}

void on_bus_error(int, siginfo_t *info, void *) {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    const bool by_access = info->si_code > 0; // not sent by a process
    watched *w = by_access ? find(address) : nullptr;
    if (w && replace_rest(*w, address))
        return; // the access is tried again
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    ::sigaction(SIGBUS, &standard, nullptr);
    if (!by_access)
        ::raise(SIGBUS); // an access comes again by itself
}

void install() {
    page_size = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
    struct sigaction action {};
    sigemptyset(&action.sa_mask);
    action.sa_sigaction = on_bus_error;
    action.sa_flags = SA_SIGINFO;
    ::sigaction(SIGBUS, &action, nullptr);
}

} // namespace

int cut_guard_add(void *address, std::size_t size) {
    static std::once_flag installed;
    std::call_once(installed, install);
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (table[i].start != 0)
            continue;
        table[i].cut = false;
        table[i].size = size;
        table[i].start = reinterpret_cast<std::uintptr_t>(address);
        return static_cast<int>(i);
    }
    return -1;
}

void cut_guard_remove(int number) {
    table[static_cast<std::size_t>(number)].start = 0;
}

bool cut_guard_was_cut(int number) {
    return table[static_cast<std::size_t>(number)].cut;
}

int cut_guard_count() {
    return cuts;
}

} // namespace kestrel
