#include "server/activity.h"

#include "server/interrupt.h"
#include "server/logs.h"
#include "server/session.h"
#include "support/metrics_text.h"
#include "support/watched_record.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>

namespace kestrel {

std::atomic<std::uint64_t> sv_bytes_out{0};

namespace {

// A text of limited length that needs no memory of its own.
template <std::size_t Size> struct short_text {
    std::size_t length = 0;
    std::array<char, Size> text{};
    void operator=(std::string_view from) { length = from.copy(text.data(), Size); }
    // As it may stand in one line of a reply.
    std::string shown() const {
        std::string line(text.data(), length);
        for (char &c : line)
            c = static_cast<unsigned char>(c) < ' ' ? '?' : c;
        return line;
    }
};

struct session_row {
    bool open = false;
    short_text<24> peer; // its address and port
    activity_clock::time_point since;
};

struct running_line {
    std::uint64_t number = 0; // runs while sv_running_line has this number
    activity_clock::time_point since;
    std::int64_t cn = -1;
    short_text<256> line;
};

struct line_progress {
    std::uint64_t line = 0; // its number
    int done = 0, total = 0;
    short_text<64> label;
};

constexpr double busy_bounds[] = {0.001, 0.01, 0.1, 1.0, 10.0, 100.0, 1000.0}; // seconds

// Written by the command thread, without a lock.
struct busy_histogram {
    std::array<std::atomic<std::uint64_t>, std::size(busy_bounds) + 1>
        counts{}; // the last: longer than any bound
    std::atomic<double> seconds = 0.0;
};
running_line begun;                   // last, by the command thread alone
watched_record<running_line> running; // the same for other threads
busy_histogram busy;
std::array<std::atomic<std::uint64_t>, sv_max_clients> lines; // of each session

std::mutex mutex; // guards what follows, for as long as a copy takes
std::array<session_row, sv_max_clients> sessions;
line_progress progress;
std::uint64_t opened = 0;
const activity_clock::time_point started = activity_clock::now();

bool is_slot(int cn) {
    return cn >= 0 && cn < sv_max_clients;
}

double seconds_since(activity_clock::time_point then) {
    return std::chrono::duration<double>(activity_clock::now() - then).count();
}

// One thread adds: it needs no locked addition.
template <class T> void add(std::atomic<T> &sum, T more) {
    sum.store(sum.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
}

// The line that runs; nothing when none does.
std::optional<running_line> line_now() {
    const running_line now = running.read();
    if (now.number == 0 || now.number != sv_running_line.load(std::memory_order_relaxed))
        return std::nullopt;
    return now;
}

std::string as_text(double value, int digits = 3) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    return text;
}

std::string local_time(activity_clock::time_point when) {
    using wall_clock = std::chrono::system_clock;
    const auto ago = std::chrono::duration_cast<wall_clock::duration>(activity_clock::now() - when);
    const std::time_t seconds = wall_clock::to_time_t(wall_clock::now() - ago);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    char text[32] = "";
    std::strftime(text, sizeof text, "%F %T", &parts);
    return text;
}

void describe_running(std::string &out, const running_line &now, const line_progress &its_progress,
                      std::string_view peer) {
    out += "running session " + std::to_string(now.cn) + " of " + std::string(peer) + " since " +
           local_time(now.since) + ", " + as_text(seconds_since(now.since)) + " s\n";
    out.append("line ").append(sv_masked(now.line.shown())).append("\n");
    if (its_progress.line == now.number)
        out.append("progress " + std::to_string(its_progress.done) + " of " +
                   std::to_string(its_progress.total) + " '")
            .append(its_progress.label.shown())
            .append("'\n");
}

std::string runs_no_line(int cn) {
    return cn >= 0 ? "! Session " + std::to_string(cn) + " runs no line" : "! No line runs";
}

} // namespace

void activity_open(int cn, std::string_view peer) {
    const std::lock_guard guard(mutex);
    session_row &row = sessions[static_cast<std::size_t>(cn)];
    row = {};
    row.open = true;
    row.peer = peer;
    row.since = activity_clock::now();
    lines[static_cast<std::size_t>(cn)].store(0, std::memory_order_relaxed);
    ++opened;
}

void activity_close(int cn) {
    const std::lock_guard guard(mutex);
    sessions[static_cast<std::size_t>(cn)].open = false;
}

void activity_begin(int cn, std::string_view line, activity_clock::time_point now) {
    ++begun.number;
    begun.since = now;
    begun.cn = cn;
    begun.line = line;
    running.write(begun, offsetof(running_line, line.text) + begun.line.length);
    sv_running_line.store(begun.number, std::memory_order_release);
    if (is_slot(cn))
        add<std::uint64_t>(lines[static_cast<std::size_t>(cn)], 1);
}

void activity_end(activity_clock::time_point now) {
    if (!activity_is_busy())
        return; // the line had not begun
    sv_running_line.store(0, std::memory_order_relaxed);
    const std::chrono::duration<double> took = now - begun.since;
    std::size_t bound = 0;
    while (bound < std::size(busy_bounds) && took.count() > busy_bounds[bound])
        ++bound;
    add<std::uint64_t>(busy.counts[bound], 1);
    add(busy.seconds, took.count());
}

bool activity_is_busy() {
    return sv_running_line.load(std::memory_order_relaxed) != 0;
}

void activity_progress(int cn, int done, int total, std::string_view label) {
    const std::optional<running_line> now = line_now();
    if (!now || now->cn != cn)
        return;
    const std::lock_guard guard(mutex);
    progress.line = now->number;
    progress.done = done;
    progress.total = total;
    progress.label = label;
}

void activity_status(std::string &out) {
    out += "up " + as_text(seconds_since(started), 0) + " s since " + local_time(started) + "\n";
    if (const std::optional<running_line> now = line_now()) {
        line_progress its_progress;
        std::string peer;
        {
            const std::lock_guard guard(mutex);
            its_progress = progress;
            if (is_slot(static_cast<int>(now->cn)))
                peer = sessions[static_cast<std::size_t>(now->cn)].peer.shown();
        }
        describe_running(out, *now, its_progress, peer);
    } else {
        out += "running nothing\n";
    }
    for (int cn = 0; cn < sv_max_clients; ++cn) {
        session_row row;
        {
            const std::lock_guard guard(mutex);
            row = sessions[static_cast<std::size_t>(cn)];
        }
        const std::uint64_t its_lines = lines[static_cast<std::size_t>(cn)].load(std::memory_order_relaxed);
        if (row.open)
            out.append("session " + std::to_string(cn) + " of ")
                .append(row.peer.shown())
                .append(" since " + local_time(row.since) + ", " + std::to_string(its_lines) + " lines\n");
    }
}

void activity_metrics(std::string &out) {
    int open = 0;
    std::uint64_t ever = 0;
    {
        const std::lock_guard guard(mutex);
        ever = opened;
        open = static_cast<int>(
            std::count_if(sessions.begin(), sessions.end(), [](const session_row &row) { return row.open; }));
    }
    const std::optional<running_line> now = line_now();
    const double busy_now = now ? seconds_since(now->since) : 0.0;
    metric_single(out, "kestrel_sessions", "gauge", "Sessions that are open.", std::to_string(open));
    metric_single(out, "kestrel_sessions_opened_total", "counter", "Sessions that were opened.",
                  std::to_string(ever));
    metric_single(out, "kestrel_sent_bytes_total", "counter", "Bytes sent to sessions.",
                  std::to_string(sv_bytes_out.load(std::memory_order_relaxed)));
    metric_single(out, "kestrel_line_running_seconds", "gauge",
                  "For how long the present line has run, 0 for none.", as_text(busy_now));
    metric_family(out, "kestrel_line_seconds", "histogram", "Time that lines of sessions took.");
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < busy.counts.size(); ++i) {
        sum += busy.counts[i].load(std::memory_order_relaxed);
        const std::string bound = i < std::size(busy_bounds) ? as_text(busy_bounds[i]) : "+Inf";
        metric_sample(out, "kestrel_line_seconds_bucket", "le=" + metric_quoted(bound), std::to_string(sum));
    }
    metric_sample(out, "kestrel_line_seconds_sum", {}, as_text(busy.seconds, 6));
    metric_sample(out, "kestrel_line_seconds_count", {}, std::to_string(sum));
}

std::string activity_stop(int cn) {
    const std::optional<running_line> now = line_now();
    if (!now || (cn >= 0 && now->cn != cn))
        return runs_no_line(cn);
    const std::string its_line = "The line of session " + std::to_string(now->cn);
    switch (sv_interrupt_line(now->number)) {
    case interrupt_result::came:
        return "# " + its_line + " is interrupted";
    case interrupt_result::no_answer:
        return "! " + its_line + " takes no interrupt now";
    default:
        return runs_no_line(cn);
    }
}

} // namespace kestrel
