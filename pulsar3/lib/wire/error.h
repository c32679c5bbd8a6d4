// pulsar3/lib: status codes, the text of the last failure, what the library says while it works, and ^C.
//
// Each thread has a text of its own: cards that are opened side by side fail side by side, and the thread that started
// them takes over the text that counts.
#pragma once

#include <cstddef>
#include <string_view>

namespace kestrel {

enum plr3_status : int {
    plr3_failed = -1,
    plr3_invalid_path = -2, // or one of the wrong generation
    plr3_illegal_card = -3,
    plr3_illegal_sub_path = -4,
    plr3_out_of_range = -6,
};

inline constexpr std::size_t plr3_error_max = 1024; // with its end

// Keeps the text of a failure, cut to the buffer, and returns the status:  return plr3_fail(plr3_failed, "...", ...)
// The text that was kept before may be among the arguments.
int plr3_fail(int status, const char *format, ...) __attribute__((format(printf, 2, 3)));
const char *plr3_get_error_message(); // of the calling thread

// What a path says while it works ("#" of debug levels, warnings) goes to whoever configured it. The server fills
// the hook; without one, and when that session is gone, it goes to standard output. `to` is what the request to
// configure named; -1 is standard output.
extern void (*plr3_message_hook)(int to, std::string_view text);
void plr3_message(int to, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Whether the user wants an end (^C); null: never. Connecting and receiving frames ask it, from any thread. An access
// that is under way is not ended by it.
extern bool (*plr3_interrupt_hook)();
bool plr3_interrupted();

} // namespace kestrel
