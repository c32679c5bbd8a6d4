// server: what the process is busy with, for those who ask while it is: which sessions there are, whose line runs, how
// far it is. The command thread writes what changes with each line without a lock.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrel {

using activity_clock = std::chrono::steady_clock;

// Called by the command thread as things happen; it says what time it is, because asking costs as much as a short
// line. `peer` is "terminal" or a dotted address; who asks for a line sees it masked.
void activity_open(int cn, std::string_view peer);
void activity_close(int cn);
void activity_begin(int cn, std::string_view line, activity_clock::time_point now);
void activity_end(activity_clock::time_point now);
// Whether a line runs. Any thread.
bool activity_is_busy();
// Progress may come from any thread.
void activity_progress(int cn, int done, int total, std::string_view label);

// Bytes that sessions were sent; any thread.
extern std::atomic<std::uint64_t> sv_bytes_out;

// The words of `kestrelctl status` about sessions and the line that runs, and the samples about them.
void activity_status(std::string &out);
void activity_metrics(std::string &out);

// Interrupts the line that runs as ^C does; with a session's number (not -1) only when it is that session's line. What
// was done or why not, in one line without its end.
std::string activity_stop(int cn);

} // namespace kestrel
