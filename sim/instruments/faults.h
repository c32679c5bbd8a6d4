// sim/instruments: answers that fail on demand. The lock guards all of it.
#pragma once

#include "sim/instruments/instrument.h"

#include <list>
#include <optional>

namespace kestrel {

enum class bench_fault { silence, garbage, echo, too_long, late, split, cut, vanish };

struct fault_rule {
    bench_fault fault;
    const instrument *target;
    std::string on;   // only of commands with this text
    int after = 0;    // of them, leave so many alone first
    int times = 1;    // -1: for ever
    int argument = 0; // bytes, milliseconds
};

extern std::list<fault_rule> bench_faults;

// The fault of this command, which is used up by it.
std::optional<fault_rule> faults_next(const instrument &target, std::string_view line);

// Spoils what an instrument answers, as far as the bytes go.
void faults_spoil(const fault_rule &rule, std::string &bytes);

} // namespace kestrel
