// support: where a server's control socket is, and asking it. Uses the system only.
#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <sys/un.h>

namespace kestrel {

// The folder of control sockets that nobody named: XDG_RUNTIME_DIR, else /run/user/UID where it is, else /tmp/kestrel-UID.
std::string control_folder();
// The usual socket of the server on this port.
std::string control_path(int port);

// False for a path that is too long for a socket.
bool control_address(const std::string &path, sockaddr_un &address);

// Sends one request and takes the whole answer. False, with why in `answer`, when the server does not answer in time or
// the path is no socket.
bool control_ask(const std::string &path, std::string_view request, std::chrono::milliseconds patience,
                 std::string &answer);

} // namespace kestrel
