// instruments/bench: what the two Keithleys have in common: how they are opened, and commands that people write.
#pragma once

#include "instruments/bench/line.h"
#include "instruments/bench/logger.h"

#include <optional>
#include <string>

namespace kestrel::bench {

// The words of their opening commands.
struct open_wishes {
    const char *port, *host; // "" when not given
    std::optional<int> tcp_port;
    int usual_port;
    bool telnet;
    bool debug;
    speed_t speed;
};

// Opens the line over the serial device, or over TCP; the device is remembered for the next time. What is left of a
// connection that died, its logger too, is cleared away. False after a line.
bool keithley_open(int cn, line &l, logger &log, std::string &device, const char *instrument,
                   const open_wishes &w);

// False after a line when the text would be more than one command to the instrument.
bool is_one_command(int cn, const char *text);

// printf into a string.
std::string text_of(const char *format, ...) __attribute__((format(printf, 1, 2)));

} // namespace kestrel::bench
