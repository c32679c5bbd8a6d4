// server: the service manager that may have started the server hears that it is ready, that it turns, and that it ends:
// datagrams to the socket that the environment names in NOTIFY_SOCKET (sd_notify(3)).
#pragma once

#include <chrono>
#include <optional>
#include <string_view>

namespace kestrel {

// Sends a state, as "READY=1"; nothing without a manager.
void sv_service_tell(std::string_view state);

// How often the manager wants to hear of a server that turns: half of WATCHDOG_USEC. Nothing when it does not.
std::optional<std::chrono::milliseconds> sv_service_interval();

// The session loop has come round now, or has done a line.
void sv_service_turn(std::chrono::steady_clock::time_point now);

// False when the loop has not come round for a minute although no command runs: it hangs. A command may take as long as it
// likes. Any thread.
bool sv_service_turns();

} // namespace kestrel
