#include "server/input_machine.h"

#include <algorithm>
#include <array>

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

using edit_function = void (*)(line_edit &, std::string &);

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

void leave_line_end(telnet_state &t) {
    switch (t.inp_state) {
    case input_state::PrevCR:
        t.inp_state = input_state::IgnoreLF;
        break;
    case input_state::PrevLF:
        t.inp_state = input_state::IgnoreCR;
        break;
    default:
        t.inp_state = input_state::Normal;
        break;
    }
}

// The second half of a line end (CR LF, LF CR) is no line of its own. Any byte but NUL ends the wait for it.
bool is_second_half(telnet_state &t, unsigned char byte) {
    const input_state state = t.inp_state;
    if (state != input_state::IgnoreLF && state != input_state::IgnoreCR)
        return false;
    t.inp_state = input_state::Normal;
    return byte == (state == input_state::IgnoreLF ? LINE_FEED : ENTER);
}

void end_line(telnet_state &t, unsigned char byte) {
    t.inp_state = byte == ENTER ? input_state::PrevCR : input_state::PrevLF;
}

bool ends_line(unsigned char byte) {
    return byte == ENTER || byte == LINE_FEED;
}

// ---- plain mode

input_event plain_byte(input_machine &m, unsigned char byte) {
    if (byte == KEY_NULL || is_second_half(m.telnet, byte))
        return input_event::more;
    if (ends_line(byte)) {
        end_line(m.telnet, byte);
        return input_event::line;
    }
    if (byte == telnet_iac) {
        m.telnet.inp_state = input_state::IACFromSimple;
        m.echo_mode = 1;
        m.edit.pos = m.edit.len;
        return input_event::more;
    }
    if (byte == BACKSPACE || byte == CTRL_H) {
        m.edit.len -= m.edit.len > 0 ? 1 : 0;
    } else {
        if (m.edit.len >= sv_line_max)
            return input_event::overlong;
        m.edit.input[m.edit.len++] = static_cast<char>(byte);
    }
    m.edit.input[m.edit.len] = '\0';
    return input_event::more;
}

constexpr std::array<bool, 256> is_ordinary = [] {
    std::array<bool, 256> ordinary{};
    for (std::size_t byte = ' '; byte < ordinary.size(); ++byte)
        ordinary[byte] = byte != BACKSPACE && byte != telnet_iac;
    return ordinary;
}();

// Stores the ordinary characters that `bytes` begins with, as far as the line has room; inside a plain line.
std::size_t take_ordinary(input_machine &m, std::string_view bytes) {
    const std::size_t most = std::min(bytes.size(), sv_line_max - m.edit.len);
    std::size_t n = 0;
    while (n < most && is_ordinary[static_cast<unsigned char>(bytes[n])])
        ++n;
    bytes.copy(m.edit.input + m.edit.len, n);
    m.edit.len += n;
    m.edit.input[m.edit.len] = '\0';
    return n;
}

// ---- character mode

// The second byte after ESC, or the last of a longer sequence ("[3~", "[1;5C"): what is unknown does nothing.
void escape_byte(input_machine &m, unsigned char byte, input_texts &texts) {
    const bool second = m.telnet.inp_state == input_state::Seq2;
    const bool number = (byte >= '0' && byte <= '9') || byte == ';';
    const std::size_t at = second ? 1 : 2;
    m.edit.seq[at] = static_cast<char>(byte);
    m.telnet.inp_state = number && m.edit.seq[0] == '[' ? input_state::Seq3 : input_state::Normal;
    const std::string_view keys(m.edit.seq, at + 1);
    for (const escape_binding &binding : escape_keys) {
        if (binding.keys == keys)
            binding.edit(m.edit, texts.reply);
    }
}

input_event key(input_machine &m, unsigned char byte, input_texts &texts) {
    switch (byte) {
    case ENTER:
    case LINE_FEED:
        sv_ln_finish(m.edit, texts.reply);
        end_line(m.telnet, byte);
        return input_event::line;
    case CTRL_C:
        return input_event::pause;
    case CTRL_D:
        if (m.edit.len == 0)
            return input_event::disconnect;
        sv_ln_delete(m.edit, texts.reply);
        return input_event::more;
    case TAB:
        if (sv_ln_complete(m.edit, texts.reply))
            m.telnet.inp_state = input_state::Completion;
        return input_event::more;
    case ESC:
        m.telnet.inp_state = input_state::Seq1;
        m.took_back = false;
        return input_event::more;
    default:
        break;
    }
    for (const key_binding &binding : control_keys) {
        if (binding.key == byte) {
            binding.edit(m.edit, texts.reply);
            return input_event::more;
        }
    }
    if (byte >= ' ')
        sv_ln_insert(m.edit, static_cast<char>(byte), texts.reply);
    return input_event::more;
}

// True when the key belonged to the cycling; any other key keeps the candidate shown.
bool completion_key(input_machine &m, unsigned char byte, input_texts &texts) {
    if (byte == TAB && m.edit.lc.size() >= 2) {
        sv_ln_complete_next(m.edit, texts.reply);
        return true;
    }
    m.telnet.inp_state = input_state::Normal;
    if (byte == ESC) {
        sv_ln_complete_cancel(m.edit, texts.reply);
        m.telnet.inp_state = input_state::Seq1; // it may be the head of an arrow key
        m.took_back = true;
    }
    return byte == ESC;
}

input_event character_byte(input_machine &m, unsigned char byte, input_texts &texts) {
    if (sv_tn_in_command(m.telnet)) {
        if (!sv_tn_byte(m.telnet, m.edit.cols, byte, texts))
            sv_ln_insert(m.edit, static_cast<char>(byte), texts.reply);
        return input_event::more;
    }
    if (byte == KEY_NULL || is_second_half(m.telnet, byte))
        return input_event::more;
    if (m.telnet.inp_state == input_state::Completion && completion_key(m, byte, texts))
        return input_event::more;
    if (byte == telnet_iac) {
        m.telnet.inp_state = input_state::GotIAC;
        return input_event::more;
    }
    switch (m.telnet.inp_state) {
    case input_state::Normal:
        return key(m, byte, texts);
    case input_state::Seq1:
        m.telnet.inp_state = input_state::Normal;
        if (byte != '[' && (byte != 'O' || m.took_back)) // a lone ESC, then a key of its own
            return key(m, byte, texts);
        m.edit.seq[0] = static_cast<char>(byte);
        m.telnet.inp_state = input_state::Seq2;
        return input_event::more;
    case input_state::Seq2:
    case input_state::Seq3:
        escape_byte(m, byte, texts);
        return input_event::more;
    default:
        texts.notice +=
            "Unknowm client input state =" + std::to_string(static_cast<int>(m.telnet.inp_state)) + "\n";
        m.telnet.inp_state = input_state::Normal;
        return input_event::more;
    }
}

} // namespace

input_event sv_input_feed(input_machine &m, std::string_view bytes, std::size_t &used, input_texts texts) {
    input_event event = input_event::more;
    for (used = 0; used < bytes.size() && event == input_event::more;) {
        if (between_lines(m.telnet.inp_state)) {
            sv_ln_start(m.edit);
            leave_line_end(m.telnet);
        }
        if (!m.echo_mode && m.telnet.inp_state == input_state::Normal) {
            used += take_ordinary(m, bytes.substr(used));
            if (used == bytes.size())
                break;
        }
        const unsigned char byte = static_cast<unsigned char>(bytes[used++]);
        event = m.echo_mode ? character_byte(m, byte, texts) : plain_byte(m, byte);
    }
    return event;
}

bool sv_input_skips(input_machine &m, unsigned char byte, input_texts texts) {
    if (sv_tn_in_command(m.telnet))
        return sv_tn_byte(m.telnet, m.edit.cols, byte, texts);
    if (between_lines(m.telnet.inp_state))
        leave_line_end(m.telnet);
    if (byte == KEY_NULL || is_second_half(m.telnet, byte))
        return true;
    if (byte != telnet_iac)
        return false;
    m.telnet.inp_state = input_state::GotIAC;
    m.echo_mode = 1;
    return true;
}

input_event sv_input_answer(input_machine &m, std::string_view bytes, std::size_t &used, std::string &line,
                            answer_form form, input_texts texts) {
    for (used = 0; used < bytes.size();) {
        const unsigned char byte = static_cast<unsigned char>(bytes[used++]);
        if (form.telnet && sv_input_skips(m, byte, texts))
            continue;
        if (!form.telnet && between_lines(m.telnet.inp_state))
            leave_line_end(m.telnet);
        if (!form.telnet && (byte == KEY_NULL || is_second_half(m.telnet, byte)))
            continue;
        if (byte == CTRL_C && form.telnet && m.echo_mode)
            return input_event::pause;
        if (ends_line(byte)) {
            end_line(m.telnet, byte);
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
