#include "server/telnet.h"

#include <array>
#include <cstdio>

namespace kestrel {

namespace {

// Telnet commands and options (RFC 854, 857, 858, 1073, 1184).
enum telnet : unsigned char {
    SE = 240,
    SB = 250,
    WILL = 251,
    WONT = 252,
    DO = 253,
    DONT = 254,
    IAC = telnet_iac,
    option_echo = 1,
    option_suppress_go_ahead = 3,
    option_naws = 31,
    option_linemode = 34,
};

constexpr std::array<unsigned char, 12> requests = {
    IAC, DONT, option_linemode,          IAC, WILL, option_echo,
    IAC, WILL, option_suppress_go_ahead, IAC, DO,   option_naws,
};

void note_option(input_texts &texts, const char *verb, unsigned option) {
    char line[64];
    std::snprintf(line, sizeof line, "Rcv: %s %02x\n", verb, option);
    texts.notice += line;
}

void send_requests(telnet_state &t, input_texts &texts) {
    if (t.neg_state != negotiation_state::None)
        return;
    t.neg_state = negotiation_state::SentRequests;
    texts.notice += "Sending don't line mode, will echo, will supress-go-ahead, do_naws\n";
    texts.reply.append(requests.begin(), requests.end());
}

// The state after IAC and this byte.
input_state after_iac(telnet_state &t, unsigned char byte) {
    switch (byte) {
    case DO:
        return input_state::GotDO;
    case DONT:
        return input_state::GotDONT;
    case WILL:
        return input_state::GotWILL;
    case WONT:
        return input_state::GotWONT;
    case SB:
        t.option_read = t.iac_pending = false;
        return input_state::GotSB;
    default:
        return input_state::Normal;
    }
}

void window_size_complete(const telnet_state &t, std::size_t &cols, input_texts &texts) {
    if (t.new_width > 0)
        cols = t.new_width;
    texts.notice += "NAWS (" + std::to_string(t.new_width) + ", " + std::to_string(t.new_height) + ")\n";
}

// One byte of the window size, network order. IAC within it stands doubled.
void window_size_byte(telnet_state &t, std::size_t &cols, unsigned char byte, input_texts &texts) {
    if (!t.iac_pending && byte == IAC) {
        t.iac_pending = true;
        return;
    }
    if (t.iac_pending && byte != IAC) { // the report was cut short
        t.inp_state = after_iac(t, byte);
        return;
    }
    t.iac_pending = false;
    switch (t.inp_state) {
    case input_state::NAWS_W1:
        t.new_width = byte;
        t.inp_state = input_state::NAWS_W2;
        break;
    case input_state::NAWS_W2:
        t.new_width = t.new_width << 8 | byte;
        t.inp_state = input_state::NAWS_H1;
        break;
    case input_state::NAWS_H1:
        t.new_height = byte;
        t.inp_state = input_state::NAWS_H2;
        break;
    default:
        t.new_height = t.new_height << 8 | byte;
        t.inp_state = input_state::GotSB;
        window_size_complete(t, cols, texts);
        break;
    }
}

// Inside IAC SB: the option, then its contents up to SE. Only the window size is read.
void subnegotiation_byte(telnet_state &t, unsigned char byte) {
    const bool first = !t.option_read;
    t.option_read = true;
    if (byte == SE)
        t.inp_state = input_state::Normal;
    else if (first && byte == option_naws)
        t.inp_state = input_state::NAWS_W1;
}

} // namespace

bool sv_tn_in_command(const telnet_state &t) {
    return t.inp_state == input_state::IACFromSimple || t.inp_state >= input_state::GotIAC;
}

bool sv_tn_byte(telnet_state &t, std::size_t &cols, unsigned char byte, input_texts &texts) {
    switch (t.inp_state) {
    case input_state::IACFromSimple:
    case input_state::GotIAC:
        send_requests(t, texts);
        t.inp_state = after_iac(t, byte);
        return byte != IAC;
    case input_state::GotDO:
        note_option(texts, "DO", byte);
        break;
    case input_state::GotDONT:
        note_option(texts, "DONT", byte);
        break;
    case input_state::GotWONT:
        note_option(texts, "WONT", byte);
        break;
    case input_state::GotWILL:
        break;
    case input_state::GotSB:
        subnegotiation_byte(t, byte);
        return true;
    case input_state::NAWS_W1:
    case input_state::NAWS_W2:
    case input_state::NAWS_H1:
    case input_state::NAWS_H2:
        window_size_byte(t, cols, byte, texts);
        return true;
    default:
        return false;
    }
    t.inp_state = input_state::Normal;
    return true;
}

} // namespace kestrel
