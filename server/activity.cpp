#include "server/activity.h"

#include "server/interrupt.h"
#include "server/session.h"
#include "support/light_mutex.h"
#include "support/metrics_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

namespace kestrel {

std::atomic<std::uint64_t> sv_bytes_out{0};

namespace {

// A text of limited length that needs no memory of its own.
template <std::size_t Size> struct short_text {
    std::array<char, Size> text{};
    std::size_t length = 0;
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
    std::uint64_t lines = 0;
};

struct running_line {
    int cn = -1; // -1: nothing runs
    short_text<256> line;
    activity_clock::time_point since;
    bool has_progress = false;
    int done = 0, total = 0;
    short_text<64> label;
};

constexpr double busy_bounds[] = {0.001, 0.01, 0.1, 1.0, 10.0, 100.0, 1000.0}; // seconds

struct busy_histogram {
    std::array<std::uint64_t, std::size(busy_bounds) + 1> counts{}; // the last: longer than any bound
    double seconds = 0.0;
};

light_mutex mutex; // guards what follows, for as long as a copy takes
std::array<session_row, sv_max_clients> sessions;
running_line running;
busy_histogram busy;
std::uint64_t opened = 0;
const activity_clock::time_point started = activity_clock::now();

bool is_slot(int cn) {
    return cn >= 0 && cn < sv_max_clients;
}

double seconds_since(activity_clock::time_point then) {
    return std::chrono::duration<double>(activity_clock::now() - then).count();
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

void describe_running(std::string &out, const running_line &now, std::string_view peer) {
    if (now.cn < 0) {
        out += "running nothing\n";
        return;
    }
    out += "running session " + std::to_string(now.cn) + " of " + std::string(peer) + " since " +
           local_time(now.since) + ", " + as_text(seconds_since(now.since)) + " s\n";
    out.append("line ").append(now.line.shown()).append("\n");
    if (now.has_progress)
        out.append("progress " + std::to_string(now.done) + " of " + std::to_string(now.total) + " '")
            .append(now.label.shown())
            .append("'\n");
}

} // namespace

void activity_open(int cn, std::string_view peer) {
    const std::lock_guard guard(mutex);
    session_row &row = sessions[static_cast<std::size_t>(cn)];
    row = {};
    row.open = true;
    row.peer = peer;
    row.since = activity_clock::now();
    ++opened;
}

void activity_close(int cn) {
    const std::lock_guard guard(mutex);
    sessions[static_cast<std::size_t>(cn)].open = false;
}

void activity_begin(int cn, std::string_view line, activity_clock::time_point now) {
    const std::lock_guard guard(mutex);
    running.cn = cn;
    running.line = line;
    running.since = now;
    running.has_progress = false;
    if (is_slot(cn))
        ++sessions[static_cast<std::size_t>(cn)].lines;
}

void activity_end(activity_clock::time_point now) {
    const std::lock_guard guard(mutex);
    if (running.cn < 0)
        return; // the line had not begun
    const std::chrono::duration<double> took = now - running.since;
    running.cn = -1;
    const auto *const bound = std::lower_bound(std::begin(busy_bounds), std::end(busy_bounds), took.count());
    ++busy.counts[static_cast<std::size_t>(bound - std::begin(busy_bounds))];
    busy.seconds += took.count();
}

void activity_progress(int cn, int done, int total, std::string_view label) {
    const std::lock_guard guard(mutex);
    if (cn != running.cn)
        return;
    running.has_progress = true;
    running.done = done;
    running.total = total;
    running.label = label;
}

void activity_status(std::string &out) {
    std::string rows;
    running_line now;
    std::string peer;
    {
        const std::lock_guard guard(mutex);
        now = running;
        if (is_slot(now.cn))
            peer = sessions[static_cast<std::size_t>(now.cn)].peer.shown();
    }
    out += "up " + as_text(seconds_since(started), 0) + " s since " + local_time(started) + "\n";
    describe_running(out, now, peer);
    for (int cn = 0; cn < sv_max_clients; ++cn) {
        session_row row;
        {
            const std::lock_guard guard(mutex);
            row = sessions[static_cast<std::size_t>(cn)];
        }
        if (row.open)
            out.append("session " + std::to_string(cn) + " of ")
                .append(row.peer.shown())
                .append(" since " + local_time(row.since) + ", " + std::to_string(row.lines) + " lines\n");
    }
}

bool activity_is_busy() {
    const std::lock_guard guard(mutex);
    return running.cn >= 0;
}

void activity_metrics(std::string &out) {
    busy_histogram histogram;
    int open = 0;
    std::uint64_t ever = 0;
    double busy_now = 0.0;
    {
        const std::lock_guard guard(mutex);
        histogram = busy;
        ever = opened;
        open = static_cast<int>(
            std::count_if(sessions.begin(), sessions.end(), [](const session_row &row) { return row.open; }));
        if (running.cn >= 0)
            busy_now = seconds_since(running.since);
    }
    metric_single(out, "kestrel_sessions", "gauge", "Sessions that are open.", std::to_string(open));
    metric_single(out, "kestrel_sessions_opened_total", "counter", "Sessions that were opened.",
                  std::to_string(ever));
    metric_single(out, "kestrel_sent_bytes_total", "counter", "Bytes sent to sessions.",
                  std::to_string(sv_bytes_out.load(std::memory_order_relaxed)));
    metric_single(out, "kestrel_line_running_seconds", "gauge",
                  "For how long the present line has run, 0 for none.", as_text(busy_now));
    metric_family(out, "kestrel_line_seconds", "histogram", "Time that lines of sessions took.");
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < histogram.counts.size(); ++i) {
        sum += histogram.counts[i];
        const std::string bound = i < std::size(busy_bounds) ? as_text(busy_bounds[i]) : "+Inf";
        metric_sample(out, "kestrel_line_seconds_bucket", "le=" + metric_quoted(bound), std::to_string(sum));
    }
    metric_sample(out, "kestrel_line_seconds_sum", {}, as_text(histogram.seconds, 6));
    metric_sample(out, "kestrel_line_seconds_count", {}, std::to_string(sum));
}

std::string activity_stop(int cn) {
    // With the lock held the line cannot end, nor the next one begin, before its interrupt has come.
    const std::lock_guard guard(mutex);
    if (cn >= 0 && running.cn != cn)
        return "! Session " + std::to_string(cn) + " runs no line";
    if (running.cn < 0)
        return "! No line runs";
    return sv_interrupt_command_thread()
               ? "# The line of session " + std::to_string(running.cn) + " is interrupted"
               : "! The line of session " + std::to_string(running.cn) + " takes no interrupt now";
}

} // namespace kestrel
