#include "sim/instruments/conversation.h"

#include "sim/instruments/faults.h"

#include <algorithm>
#include <sys/socket.h>

namespace kestrel {

namespace {

using steady = std::chrono::steady_clock;

constexpr std::size_t line_max = 4096; // of a command

void put(wire &w, std::string bytes, double seconds) {
    const auto later = std::chrono::duration<double>(seconds);
    w.out.push_back({steady::now() + std::chrono::duration_cast<steady::duration>(later), std::move(bytes)});
}

// One command, without its end. False when the instrument vanishes.
bool serve_command(wire &w, std::string_view line) {
    instrument &i = *w.owner;
    const std::optional<fault_rule> rule = faults_next(i, line);
    if (rule && rule->fault == bench_fault::vanish)
        return false;
    reply r = i.answer(line);
    double delay = r.seconds / bench.speed;
    if (rule)
        faults_spoil(*rule, r.bytes);
    if (rule && rule->fault == bench_fault::late)
        delay += rule->argument * 1e-3;
    const std::size_t step =
        rule && rule->fault == bench_fault::split ? 1 : std::max(r.bytes.size(), std::size_t{1});
    for (std::size_t at = 0; at < r.bytes.size(); at += step)
        put(w, r.bytes.substr(at, step), delay);
    return true;
}

} // namespace

// A line ends with LF, or CR, or both; an empty one is none.
bool conversation_take_lines(wire &w) {
    for (std::size_t end; (end = w.in.find_first_of("\r\n")) != std::string::npos;) {
        const std::string line = w.in.substr(0, end);
        std::size_t next = end + 1;
        if (w.in.compare(end, 2, "\r\n") == 0)
            ++next;
        instrument &i = *w.owner;
        i.seen.push_back(w.in.substr(0, next));
        if (i.seen.size() > seen_max)
            i.seen.pop_front();
        w.in.erase(0, next);
        ++i.commands;
        if (!line.empty() && !serve_command(w, line))
            return false;
    }
    if (w.in.size() > line_max)
        w.in.clear();
    return true;
}

void conversation_send_due(wire &w) {
    while (!w.out.empty() && w.out.front().due <= steady::now()) {
        std::string &bytes = w.out.front().bytes;
        const ssize_t n = w.far_end ? ::write(w.fd.get(), bytes.data(), bytes.size())
                                    : ::send(w.fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0)
            return;
        bytes.erase(0, static_cast<std::size_t>(n));
        if (bytes.empty())
            w.out.pop_front();
    }
}

} // namespace kestrel
