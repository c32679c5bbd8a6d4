#include "server/input_machine.h"

#include "server/line_editor.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace kestrel {

namespace {

enum KEY_ACTION : unsigned char {
    KEY_NULL = 0,
    CTRL_A = 1,
    CTRL_B = 2,
    CTRL_C = 3,
    CTRL_D = 4,
    CTRL_E = 5,
    CTRL_F = 6,
    CTRL_H = 8,
    TAB = 9,
    LINE_FEED = 10,
    CTRL_K = 11,
    CTRL_L = 12,
    ENTER = 13,
    CTRL_N = 14,
    CTRL_P = 16,
    CTRL_T = 20,
    CTRL_U = 21,
    CTRL_W = 23,
    ESC = 27,
    BACKSPACE = 127,
};

// Telnet commands and options (RFC 854, 857, 858, 1073, 1184).
enum telnet : unsigned char {
    SE = 240,
    SB = 250,
    WILL = 251,
    WONT = 252,
    DO = 253,
    DONT = 254,
    IAC = 255,
    option_echo = 1,
    option_suppress_go_ahead = 3,
    option_naws = 31,
    option_linemode = 34,
};

constexpr std::array<unsigned char, 12> requests = {
    IAC, DONT, option_linemode,          IAC, WILL, option_echo,
    IAC, WILL, option_suppress_go_ahead, IAC, DO,   option_naws,
};

using edit_function = void (*)(client_descriptor &, std::string &);

struct key_binding {
    unsigned char key;
    edit_function edit;
};

constexpr key_binding control_keys[] = {
    {CTRL_A, sv_ln_home},          {CTRL_B, sv_ln_left},         {CTRL_E, sv_ln_end},
    {CTRL_F, sv_ln_right},         {CTRL_H, sv_ln_backspace},    {BACKSPACE, sv_ln_backspace},
    {CTRL_K, sv_ln_delete_to_end}, {CTRL_L, sv_ln_clear_screen}, {CTRL_N, sv_ln_history_forward},
    {CTRL_P, sv_ln_history_back},  {CTRL_T, sv_ln_swap},         {CTRL_U, sv_ln_clear},
    {CTRL_W, sv_ln_delete_word},
};

struct escape_binding {
    std::string_view keys; // what follows ESC
    edit_function edit;
};

constexpr escape_binding escape_keys[] = {
    {"[A", sv_ln_history_back}, {"[B", sv_ln_history_forward},
    {"[C", sv_ln_right},        {"[D", sv_ln_left},
    {"[H", sv_ln_home},         {"[F", sv_ln_end},
    {"[3~", sv_ln_delete},      {"OH", sv_ln_home},
    {"OF", sv_ln_end},
};

// ---- between two lines

bool between_lines(input_state state) {
    return state == input_state::First || state == input_state::PrevCR || state == input_state::PrevLF;
}

void leave_line_end(client_descriptor &c) {
    switch (c.inp_state) {
    case input_state::PrevCR:
        c.inp_state = input_state::IgnoreLF;
        break;
    case input_state::PrevLF:
        c.inp_state = input_state::IgnoreCR;
        break;
    default:
        c.inp_state = input_state::Normal;
        break;
    }
}

// The second half of a line end (CR LF, LF CR) is no line of its own. Any byte but NUL ends the wait for it.
bool is_second_half(client_descriptor &c, unsigned char byte) {
    const input_state state = c.inp_state;
    if (state != input_state::IgnoreLF && state != input_state::IgnoreCR)
        return false;
    c.inp_state = input_state::Normal;
    return byte == (state == input_state::IgnoreLF ? LINE_FEED : ENTER);
}

void end_line(client_descriptor &c, unsigned char byte) {
    c.inp_state = byte == ENTER ? input_state::PrevCR : input_state::PrevLF;
}

bool ends_line(unsigned char byte) {
    return byte == ENTER || byte == LINE_FEED;
}

// ---- telnet commands

template <class... A> void note(input_texts &texts, const char *format, A... values) {
    char line[64];
    std::snprintf(line, sizeof line, format, values...);
    texts.notice += line;
}

void send_requests(client_descriptor &c, input_texts &texts) {
    if (c.neg_state != negotiation_state::None)
        return;
    c.neg_state = negotiation_state::SentRequests;
    texts.notice += "Sending don't line mode, will echo, will supress-go-ahead, do_naws\n";
    texts.reply.append(requests.begin(), requests.end());
}

// The state after IAC and this byte.
input_state after_iac(client_descriptor &c, unsigned char byte) {
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
        c.seq[0] = c.seq[1] = 0; // no option read yet, no IAC pending
        return input_state::GotSB;
    default:
        return input_state::Normal;
    }
}

void window_size_complete(client_descriptor &c, input_texts &texts) {
    if (c.new_width > 0)
        c.cols = c.new_width;
    note(texts, "NAWS (%d, %d)\n", static_cast<int>(c.new_width), static_cast<int>(c.new_height));
}

// One byte of the window size, network order. IAC within it stands doubled.
void window_size_byte(client_descriptor &c, unsigned char byte, input_texts &texts) {
    if (c.seq[1] == 0 && byte == IAC) {
        c.seq[1] = 1;
        return;
    }
    if (c.seq[1] != 0 && byte != IAC) { // the report was cut short
        c.inp_state = after_iac(c, byte);
        return;
    }
    c.seq[1] = 0;
    switch (c.inp_state) {
    case input_state::NAWS_W1:
        c.new_width = byte;
        c.inp_state = input_state::NAWS_W2;
        break;
    case input_state::NAWS_W2:
        c.new_width = c.new_width << 8 | byte;
        c.inp_state = input_state::NAWS_H1;
        break;
    case input_state::NAWS_H1:
        c.new_height = byte;
        c.inp_state = input_state::NAWS_H2;
        break;
    default:
        c.new_height = c.new_height << 8 | byte;
        c.inp_state = input_state::GotSB;
        window_size_complete(c, texts);
        break;
    }
}

// Inside IAC SB: the option, then its contents up to SE. Only the window size is read.
void subnegotiation_byte(client_descriptor &c, unsigned char byte) {
    const bool first = c.seq[0] == 0;
    c.seq[0] = 1;
    if (byte == SE)
        c.inp_state = input_state::Normal;
    else if (first && byte == option_naws)
        c.inp_state = input_state::NAWS_W1;
}

// True when the byte is a part of a telnet command. A doubled IAC is not: it goes on as a literal byte.
bool telnet_byte(client_descriptor &c, unsigned char byte, input_texts &texts) {
    switch (c.inp_state) {
    case input_state::IACFromSimple:
    case input_state::GotIAC:
        send_requests(c, texts);
        c.inp_state = after_iac(c, byte);
        return byte != IAC;
    case input_state::GotDO:
        note(texts, "Rcv: DO %02x\n", static_cast<unsigned>(byte));
        break;
    case input_state::GotDONT:
        note(texts, "Rcv: DONT %02x\n", static_cast<unsigned>(byte));
        break;
    case input_state::GotWONT:
        note(texts, "Rcv: WONT %02x\n", static_cast<unsigned>(byte));
        break;
    case input_state::GotWILL:
        break;
    case input_state::GotSB:
        subnegotiation_byte(c, byte);
        return true;
    case input_state::NAWS_W1:
    case input_state::NAWS_W2:
    case input_state::NAWS_H1:
    case input_state::NAWS_H2:
        window_size_byte(c, byte, texts);
        return true;
    default:
        return false;
    }
    c.inp_state = input_state::Normal;
    return true;
}

bool in_telnet_command(input_state state) {
    return state == input_state::IACFromSimple || state >= input_state::GotIAC;
}

// ---- plain mode

input_event plain_byte(client_descriptor &c, unsigned char byte) {
    if (byte == KEY_NULL || is_second_half(c, byte))
        return input_event::more;
    if (ends_line(byte)) {
        end_line(c, byte);
        return input_event::line;
    }
    if (byte == IAC) {
        c.inp_state = input_state::IACFromSimple;
        c.echo_mode = 1;
        c.pos = c.len;
        return input_event::more;
    }
    if (byte == BACKSPACE || byte == CTRL_H) {
        c.len -= c.len > 0 ? 1 : 0;
    } else {
        if (c.len >= sv_line_max)
            return input_event::overlong;
        c.input[c.len++] = static_cast<char>(byte);
    }
    c.input[c.len] = '\0';
    return input_event::more;
}

// Stores the ordinary characters that `bytes` begins with, as far as the line has room; inside a plain line.
std::size_t take_ordinary(client_descriptor &c, std::string_view bytes) {
    const std::size_t most = std::min(bytes.size(), sv_line_max - c.len);
    std::size_t n = 0;
    for (; n < most; ++n) {
        const unsigned char byte = static_cast<unsigned char>(bytes[n]);
        if (byte < ' ' || byte == BACKSPACE || byte == IAC)
            break;
        c.input[c.len + n] = bytes[n];
    }
    c.len += n;
    c.input[c.len] = '\0';
    return n;
}

// ---- character mode

// The second byte after ESC, or the last of a longer sequence ("[3~", "[1;5C"): what is unknown does nothing.
void escape_byte(client_descriptor &c, unsigned char byte, input_texts &texts) {
    const bool second = c.inp_state == input_state::Seq2;
    const bool number = (byte >= '0' && byte <= '9') || byte == ';';
    const std::size_t at = second ? 1 : 2;
    c.seq[at] = static_cast<char>(byte);
    c.inp_state = number && c.seq[0] == '[' ? input_state::Seq3 : input_state::Normal;
    const std::string_view keys(c.seq, at + 1);
    for (const escape_binding &binding : escape_keys) {
        if (binding.keys == keys)
            binding.edit(c, texts.reply);
    }
}

input_event key(client_descriptor &c, unsigned char byte, input_texts &texts) {
    switch (byte) {
    case ENTER:
    case LINE_FEED:
        sv_ln_finish(c, texts.reply);
        end_line(c, byte);
        return input_event::line;
    case CTRL_C:
        return input_event::pause;
    case CTRL_D:
        if (c.len == 0)
            return input_event::disconnect;
        sv_ln_delete(c, texts.reply);
        return input_event::more;
    case TAB:
        if (sv_ln_complete(c, texts.reply))
            c.inp_state = input_state::Completion;
        return input_event::more;
    case ESC:
        c.inp_state = input_state::Seq1;
        return input_event::more;
    default:
        break;
    }
    for (const key_binding &binding : control_keys) {
        if (binding.key == byte) {
            binding.edit(c, texts.reply);
            return input_event::more;
        }
    }
    if (byte >= ' ')
        sv_ln_insert(c, static_cast<char>(byte), texts.reply);
    return input_event::more;
}

// True when the key belonged to the cycling; any other key keeps the candidate shown.
bool completion_key(client_descriptor &c, unsigned char byte, input_texts &texts) {
    if (byte == TAB && c.lc.size() >= 2) {
        sv_ln_complete_next(c, texts.reply);
        return true;
    }
    c.inp_state = input_state::Normal;
    if (byte == ESC) {
        sv_ln_complete_cancel(c, texts.reply);
        c.inp_state = input_state::Seq1; // it may be the head of an arrow key
    }
    return byte == ESC;
}

input_event character_byte(client_descriptor &c, unsigned char byte, input_texts &texts) {
    if (in_telnet_command(c.inp_state)) {
        if (!telnet_byte(c, byte, texts))
            sv_ln_insert(c, static_cast<char>(byte), texts.reply);
        return input_event::more;
    }
    if (byte == KEY_NULL || is_second_half(c, byte))
        return input_event::more;
    if (c.inp_state == input_state::Completion && completion_key(c, byte, texts))
        return input_event::more;
    if (byte == IAC) {
        c.inp_state = input_state::GotIAC;
        return input_event::more;
    }
    switch (c.inp_state) {
    case input_state::Normal:
        return key(c, byte, texts);
    case input_state::Seq1:
        c.inp_state = input_state::Normal;
        if (byte != '[' && byte != 'O') // a lone ESC, then a key of its own
            return key(c, byte, texts);
        c.seq[0] = static_cast<char>(byte);
        c.inp_state = input_state::Seq2;
        return input_event::more;
    case input_state::Seq2:
    case input_state::Seq3:
        escape_byte(c, byte, texts);
        return input_event::more;
    default:
        note(texts, "Unknowm client input state =%d\n", static_cast<int>(c.inp_state));
        c.inp_state = input_state::Normal;
        return input_event::more;
    }
}

} // namespace

input_event sv_input_feed(client_descriptor &c, std::string_view bytes, std::size_t &used,
                          input_texts texts) {
    input_event event = input_event::more;
    for (used = 0; used < bytes.size() && event == input_event::more;) {
        if (between_lines(c.inp_state)) {
            sv_ln_start(c);
            leave_line_end(c);
        }
        if (!c.echo_mode && c.inp_state == input_state::Normal) {
            used += take_ordinary(c, bytes.substr(used));
            if (used == bytes.size())
                break;
        }
        const unsigned char byte = static_cast<unsigned char>(bytes[used++]);
        event = c.echo_mode ? character_byte(c, byte, texts) : plain_byte(c, byte);
    }
    return event;
}

bool sv_input_skips(client_descriptor &c, unsigned char byte, input_texts texts) {
    if (in_telnet_command(c.inp_state))
        return telnet_byte(c, byte, texts);
    if (between_lines(c.inp_state))
        leave_line_end(c);
    if (byte == KEY_NULL || is_second_half(c, byte))
        return true;
    if (byte != IAC)
        return false;
    c.inp_state = input_state::GotIAC;
    c.echo_mode = 1;
    return true;
}

constexpr std::size_t answer_max = std::size_t{1} << 20; // characters of a line that a command asked for

input_event sv_input_answer(client_descriptor &c, std::string_view bytes, std::size_t &used,
                            std::string &line, answer_form form, input_texts texts) {
    for (used = 0; used < bytes.size();) {
        const unsigned char byte = static_cast<unsigned char>(bytes[used++]);
        if (form.telnet && sv_input_skips(c, byte, texts))
            continue;
        if (!form.telnet && between_lines(c.inp_state))
            leave_line_end(c);
        if (!form.telnet && (byte == KEY_NULL || is_second_half(c, byte)))
            continue;
        if (byte == CTRL_C && form.telnet && c.echo_mode)
            return input_event::pause;
        if (ends_line(byte)) {
            end_line(c, byte);
            if (form.echo)
                texts.reply += "\r\n";
            return input_event::line;
        }
        if (byte == BACKSPACE || byte == CTRL_H) {
            if (!line.empty() && form.echo)
                texts.reply += "\b \b";
            if (!line.empty())
                line.pop_back();
            continue;
        }
        if (line.size() >= answer_max)
            continue; // kept from filling the memory; what asked takes far less
        line += static_cast<char>(byte);
        if (form.echo)
            texts.reply += static_cast<char>(byte);
    }
    return input_event::more;
}

} // namespace kestrel
