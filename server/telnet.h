// server: the telnet commands among a client's bytes: what is asked of the client, and the window size that
// it reports. Reads and writes no descriptor.
#pragma once

#include <cstddef>
#include <string>

namespace kestrel {

// Where the input machine (server/input_machine.h) stands. From GotIAC on, and in IACFromSimple, it is
// inside a telnet command.
enum class input_state : int {
    First,
    Normal,
    PrevCR,
    PrevLF,
    IgnoreLF,
    IgnoreCR,
    Seq1,
    Seq2,
    Seq3,
    Completion,
    IACFromSimple,
    GotIAC,
    GotDO,
    GotDONT,
    GotWILL,
    GotWONT,
    GotSB,
    NAWS_W1,
    NAWS_W2,
    NAWS_H1,
    NAWS_H2,
};

enum class negotiation_state : int { None, SentRequests };

struct telnet_state {
    input_state inp_state = input_state::First;
    negotiation_state neg_state = negotiation_state::None;
    unsigned new_width = 0; // 16 bits each, from the client's window size report
    unsigned new_height = 0;
    bool option_read = false; // after IAC SB: the option has been read, what follows is its contents
    bool iac_pending = false; // inside a window size: the last byte was an IAC, to be followed by another
};

// What bytes of input give rise to.
struct input_texts {
    std::string &reply;  // for the session, to be sent unchanged
    std::string &notice; // for the server's standard output
};

// Begins every telnet command.
inline constexpr unsigned char telnet_iac = 255;

bool sv_tn_in_command(const telnet_state &t);

// True when the byte is a part of a telnet command. A doubled IAC is not: it goes on as a literal byte. A
// window size that is complete goes into `cols`.
bool sv_tn_byte(telnet_state &t, std::size_t &cols, unsigned char byte, input_texts &texts);

} // namespace kestrel
