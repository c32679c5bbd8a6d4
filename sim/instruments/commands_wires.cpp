// sim/instruments: `wire`: where each instrument is, what it saw, and how it fails.
#include "parser/qualifiers.h"
#include "server/output.h"
#include "sim/instruments/commands.h"
#include "sim/instruments/faults.h"
#include "sim/instruments/wires.h"

namespace kestrel {

namespace {

instrument *known(int cn, const char *name) {
    instrument *const found = bench_find(name);
    if (!found)
        sv_printf(cn, "! There is no instrument '%s'\n", name);
    return found;
}

pt_string device(int, int cn, const char *name) {
    const instrument *const i = known(cn, name);
    const std::lock_guard guard(bench.lock);
    return i && i->on_serial ? pt_string(i->device) : std::nullopt;
}

int port(int, int cn, const char *name) {
    const instrument *const i = known(cn, name);
    const std::lock_guard guard(bench.lock);
    return i && i->on_tcp ? i->tcp_port : -1;
}

// The lines as they came, their ends and what is not printable as escapes.
std::string shown(const std::string &line) {
    std::string text;
    for (const char c : line) {
        char hex[8];
        if (c == '\r' || c == '\n')
            text += c == '\r' ? "\\r" : "\\n";
        else if (c >= ' ' && c <= '~')
            text += c;
        else {
            std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
            text += hex;
        }
    }
    return text;
}

int seen(int, int cn, const char *name) {
    instrument *const i = known(cn, name);
    if (!i)
        return -1;
    const std::lock_guard guard(bench.lock);
    for (const std::string &line : i->seen)
        sv_print(cn, "# " + shown(line) + "\n");
    return static_cast<int>(i->seen.size());
}

int forget(int, int cn, const char *name) {
    instrument *const i = known(cn, name);
    if (!i)
        return -1;
    const std::lock_guard guard(bench.lock);
    i->seen.clear();
    i->commands = 0;
    return 0;
}

int count(int, int cn, const char *name) {
    const instrument *const i = known(cn, name);
    const std::lock_guard guard(bench.lock);
    return i ? static_cast<int>(i->commands) : -1;
}

constexpr pt_format fault_format(
    "%s silence garbage echo long late split cut vanish on %s after %d times %d argument %d = %d");
using fault_words = pt_qualifiers<fault_format>;
struct kind {
    bench_fault fault;
    int argument;
};
constexpr fault_words::choice<kind> kinds[] = {
    {"silence", {bench_fault::silence, 0}}, {"garbage", {bench_fault::garbage, 20}},
    {"echo", {bench_fault::echo, 0}},       {"long", {bench_fault::too_long, 10000}},
    {"late", {bench_fault::late, 1000}},    {"split", {bench_fault::split, 0}},
    {"cut", {bench_fault::cut, 0}},         {"vanish", {bench_fault::vanish, 0}},
};
constexpr int argument_max = 10'000'000;

int fault(int quals, int cn, const char *name) {
    const fault_words q(quals);
    const instrument *const target = known(cn, name);
    const std::optional<kind> k = q.only(kinds);
    const int argument = k ? q.number("argument", k->argument) : -1;
    if (!target)
        return -1;
    if (!k || argument < 0 || argument > argument_max) {
        sv_printf(cn, "! Please give one fault, with an argument of 0 to %d\n", argument_max);
        return -1;
    }
    const std::lock_guard guard(bench.lock);
    bench_faults.push_back(
        {k->fault, target, q.text("on"), q.number("after", 0), q.number("times", 1), argument});
    return 0;
}

int no_faults(int, int) {
    const std::lock_guard guard(bench.lock);
    bench_faults.clear();
    return 0;
}

int waiting(int, int) {
    const std::lock_guard guard(bench.lock);
    return static_cast<int>(bench_faults.size());
}

int vanish(int, int cn, const char *name) {
    instrument *const i = known(cn, name);
    return i && wires_present(*i, false) ? 0 : -1;
}

int come_back(int, int cn, const char *name) {
    instrument *const i = known(cn, name);
    if (!i)
        return -1;
    if (wires_present(*i, true))
        return 0;
    sv_printf(cn, "! %s cannot have its wires\n", name);
    return -1;
}

} // namespace

constinit const PARSE_TREE commands_wires[] = {
    pt_command<device>("device", "%s = %s", "get the device of a serial line", "Instrument"),
    pt_command<port>("port", "%s = %d", "get the TCP port", "Instrument"),
    pt_command<seen>("seen", "%s = %d", "list and count the last commands", "Instrument"),
    pt_command<forget>("forget", "%s = %d", "forget the commands and their count", "Instrument"),
    pt_command<count>("count", "%s = %d", "count the commands", "Instrument"),
    pt_command<fault>("fault", fault_format, "spoil answers",
                      "Instrument/no answer/nonsense/another echo/an endless line/later/byte by byte/"
                      "the first half only/the wires go, and nothing is done/only of commands with this text/"
                      "commands to leave alone first/how often (1), -1 for ever/bytes, or milliseconds"),
    pt_command<no_faults>("no-faults", "= %d", "forget the faults that wait", ""),
    pt_command<waiting>("waiting", "= %d", "count the faults that wait", ""),
    pt_command<vanish>("vanish", "%s = %d", "take an instrument's wires away", "Instrument"),
    pt_command<come_back>("return", "%s = %d", "give an instrument new wires", "Instrument"),
    pt_end(),
};

} // namespace kestrel
