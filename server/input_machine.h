// server: from received bytes to command lines. A state machine that reads and writes no descriptor, so
// that tests and fuzzers feed it directly.
//
// Two modes (echo_mode): plain lines, ended by CR, LF, CR LF or LF CR; and character mode for telnet clients,
// whose keys act on the line editor. The first telnet command (byte 255) switches to character mode for good.
#pragma once

#include "server/line_editor.h"
#include "server/telnet.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrel {

struct input_machine {
    int echo_mode = 0; // 0 plain lines, 1 character mode with editing here
    telnet_state telnet;
    line_edit edit;
    bool took_back = false; // by the last ESC, a completion: an "O" behind it is a letter
};

inline constexpr std::size_t answer_max = std::size_t{1}
                                          << 20; // characters of a line that a command asked for

enum class input_event {
    more,       // all bytes are used, the line goes on
    line,       // edit.input holds a finished line
    disconnect, // ^D on an empty line
    pause,      // ^C: no more of this session in this turn
    overlong,   // a plain line of more than sv_line_max characters
};

// Feeds bytes up to the first event; `used` says how many were taken.
input_event sv_input_feed(input_machine &m, std::string_view bytes, std::size_t &used, input_texts texts);

// The same for a line that a running command asked for: no editing but backspace, no history, an echo of
// each byte when `echo`; telnet commands only when `telnet`, and then in character mode ^C gives `pause`. The
// line is appended to `line`, however long.
struct answer_form {
    bool telnet = true;
    bool echo = false;
};
input_event sv_input_answer(input_machine &m, std::string_view bytes, std::size_t &used, std::string &line,
                            answer_form form, input_texts texts);

// Takes a byte that belongs to a telnet command or to the end of the last line: true, and it is dealt with.
bool sv_input_skips(input_machine &m, unsigned char byte, input_texts texts);

} // namespace kestrel
