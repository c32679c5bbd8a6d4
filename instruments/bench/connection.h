// instruments/bench: the connection to an instrument as a descriptor: a serial line or TCP. It knows no commands.
#pragma once

#include "support/fd.h"

#include <string>
#include <termios.h>

namespace kestrel::bench {

inline constexpr const char *default_device = "/dev/ttyS0";
inline constexpr int patience_ms = 5000; // for an answer, for a connection, for bytes to leave

struct connection {
    unique_fd fd;
    bool serial = false;
    std::string name; // the device's path, or host:port
};

// Opens the device with the line settings of all these instruments, exclusively among programs that lock it, too. An
// empty connection after its line on failure.
connection open_serial(int cn, const std::string &device, speed_t speed);

// Lets a serial line send again after an XOFF that nobody meant.
void restart_output(int fd);

// Connects and says "# Connected to INSTRUMENT @ ...". An empty connection after its line on failure.
connection open_tcp(int cn, const char *host, int port, const char *instrument);

} // namespace kestrel::bench
