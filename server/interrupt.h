// server: ^C. The handler only counts; loops, waits and long commands poll the count.
#pragma once

#include "server/wait.h" // waits that it ends

#include <atomic>
#include <csignal>
#include <cstdint>

namespace kestrel {

extern std::atomic<int> sv_quit;       // interrupts since the line began; other threads may look
extern void (*user_quit_handler)(int); // called with 0 from the signal handler
void quit_handler(int signal);

// The number of the session's line that runs, 0 for none. Written by the command thread.
extern std::atomic<std::uint64_t> sv_running_line;

// Interrupts that line as ^C does, and no other one: what came of it, after 100 ms at most. One thread at a time, and not
// the command thread.
enum class interrupt_result { came, line_has_ended, no_answer };
interrupt_result sv_interrupt_line(std::uint64_t line);

// True on the thread that runs the loop and every command.
bool sv_on_command_thread();

// The count for a long command's loop: flushes every session's replies first, so that nobody waits for what
// is already known while the command runs on.
int sv_poll_quit(int cn);

} // namespace kestrel
