#include "sim/instruments/faults.h"

namespace kestrel {

std::list<fault_rule> bench_faults;

std::optional<fault_rule> faults_next(const instrument &target, std::string_view line) {
    for (auto rule = bench_faults.begin(); rule != bench_faults.end(); ++rule) {
        if (rule->target != &target || line.find(rule->on) == std::string_view::npos)
            continue;
        if (rule->after > 0) {
            --rule->after;
            continue;
        }
        const fault_rule found = *rule;
        if (rule->times > 0 && --rule->times == 0)
            bench_faults.erase(rule);
        return found;
    }
    return std::nullopt;
}

namespace {

std::string nonsense(int bytes) {
    static std::uint64_t state = bench.seed;
    std::string text;
    for (int i = 0; i < bytes; ++i) {
        state = state * 6364136223846793005u + 1442695040888963407u;
        const char c = static_cast<char>(state >> 56);
        text += c == '\n' ? '\0' : c;
    }
    return text;
}

} // namespace

void faults_spoil(const fault_rule &rule, std::string &bytes) {
    switch (rule.fault) {
    case bench_fault::silence:
        bytes.clear();
        break;
    case bench_fault::garbage:
        bytes = nonsense(rule.argument) + "\r\n";
        break;
    case bench_fault::echo:
        if (!bytes.empty())
            bytes.front() = static_cast<char>(bytes.front() ^ 1);
        break;
    case bench_fault::too_long:
        bytes = std::string(static_cast<std::size_t>(rule.argument), '7') + "\r\n";
        break;
    case bench_fault::cut:
        bytes.resize(bytes.size() / 2);
        break;
    case bench_fault::late:
    case bench_fault::split:
    case bench_fault::vanish: // the wires' own
        break;
    }
}

} // namespace kestrel
