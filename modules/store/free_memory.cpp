#include "modules/store/free_memory.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

namespace kestrel {

namespace {

constexpr std::uint64_t mib = 1024 * 1024;
constexpr std::uint64_t reserve_most = 1024 * mib;

struct memory {
    std::uint64_t total = 0, available = 0; // bytes
};

std::optional<memory> look() {
    const std::unique_ptr<std::FILE, int (*)(std::FILE *)> file(std::fopen("/proc/meminfo", "re"),
                                                                std::fclose);
    if (!file)
        return std::nullopt;
    memory found;
    char line[128];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        std::uint64_t kib = 0;
        if (std::sscanf(line, "MemTotal: %" SCNu64, &kib) ==
            1) // NOLINT(cert-err34-c): the kernel's own number
            found.total = kib * 1024;
        else if (std::sscanf(line, "MemAvailable: %" SCNu64, &kib) == 1) // NOLINT(cert-err34-c)
            found.available = kib * 1024;
    }
    return found.total > 0 && found.available > 0 ? std::optional(found) : std::nullopt;
}

std::uint64_t reserve_of(const memory &m) {
    const char *text = std::getenv("KESTREL_RESERVE");
    char *end = nullptr;
    const unsigned long long asked = text != nullptr ? std::strtoull(text, &end, 10) : 0;
    if (text != nullptr && end != text && *end == '\0' && asked <= UINT64_MAX / mib)
        return asked * mib;
    return std::min<std::uint64_t>(m.total / 16, reserve_most);
}

} // namespace

bool datamod_memory_for(std::size_t size) {
    const std::optional<memory> m = look();
    if (!m)
        return true;
    const std::uint64_t reserve = reserve_of(*m);
    if (reserve == 0 || (m->available >= reserve && m->available - reserve >= size))
        return true;
    errno = ENOMEM;
    return false;
}

} // namespace kestrel
