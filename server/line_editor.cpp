#include "server/line_editor.h"

#include "server/hooks.h"
#include "server/output.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

namespace {

constexpr char beep = '\a';

std::string_view text(const client_descriptor &c) {
    return {c.input, c.len};
}

// Where a character of the line stands on the screen; the prompt stands before the line.
std::size_t row(const client_descriptor &c, std::size_t index) {
    return (c.plen + index) / c.cols;
}
std::size_t column(const client_descriptor &c, std::size_t index) {
    return (c.plen + index) % c.cols;
}

void escape(std::string &out, std::size_t count, char final) {
    if (count > 0)
        out += "\x1b[" + std::to_string(count) + final;
}

void move_rows(std::string &out, std::size_t from, std::size_t to) {
    if (to < from)
        escape(out, from - to, 'A');
    else
        escape(out, to - from, 'B');
}

// From the shown cursor to c.pos.
void place_cursor(client_descriptor &c, std::string &out) {
    move_rows(out, row(c, c.oldpos), row(c, c.pos));
    out += '\r';
    escape(out, column(c, c.pos), 'C');
    c.oldpos = c.pos;
}

void move_to(client_descriptor &c, std::size_t pos, std::string &out) {
    if (pos == c.pos)
        return;
    c.pos = pos;
    place_cursor(c, out);
}

// Takes a text as the line, cut to what fits, the cursor at `pos`.
void set_line(client_descriptor &c, std::string_view line, std::size_t pos) {
    c.len = std::min(line.size(), sv_line_max);
    std::copy_n(line.begin(), c.len, c.input);
    c.input[c.len] = '\0';
    c.pos = std::min(pos, c.len);
}

void erase(client_descriptor &c, std::size_t from, std::size_t to, std::string &out) {
    if (from == to)
        return;
    std::memmove(c.input + from, c.input + to, c.len - to + 1);
    c.len -= to - from;
    c.pos = from;
    sv_ln_refresh(c, out);
}

// Gives the line being edited its place at the end of the history.
void open_history(client_descriptor &c) {
    if (c.history_open)
        return;
    c.history.emplace_back(text(c));
    c.history_len = static_cast<int>(c.history.size());
    c.history_open = true;
}

void history_show(client_descriptor &c, int index, std::string &out) {
    const int places = static_cast<int>(c.history.size()) + (c.history_open ? 0 : 1);
    if (index < 0 || index >= places) {
        out += beep;
        return;
    }
    open_history(c);
    const std::size_t last = c.history.size() - 1;
    if (c.history_index == 0)
        c.history[last] = text(c); // what was typed so far waits for the way back
    c.history_index = index;
    const std::string &line = c.history[last - static_cast<std::size_t>(index)];
    set_line(c, line, line.size());
    sv_ln_refresh(c, out);
}

// The candidate, or for the extra index the line as typed. What stood behind the cursor stays behind it.
void show_candidate(client_descriptor &c, std::string &out) {
    const std::string_view saved(c.saved_input, static_cast<std::size_t>(c.saved_len));
    const std::size_t saved_pos = static_cast<std::size_t>(c.saved_pos);
    const std::size_t index = static_cast<std::size_t>(c.completion_index);
    if (index >= c.lc.size()) {
        set_line(c, saved, saved_pos);
    } else {
        const std::string &candidate = c.lc[index];
        set_line(c, candidate + std::string(saved.substr(saved_pos)), candidate.size());
    }
    sv_ln_refresh(c, out);
}

} // namespace

void sv_ln_start(client_descriptor &c) {
    set_line(c, {}, 0);
    c.oldpos = 0;
    c.maxrows = 0;
    c.history_index = 0;
    c.lc.clear();
}

void sv_ln_finish(client_descriptor &c, std::string &out) {
    escape(out, row(c, c.len) - row(c, c.pos), 'B');
    out += "\r\n";
    if (c.history_max_len <= 0)
        return;
    open_history(c);
    c.history.back() = text(c);
    c.history_open = false;
    if (c.history_len > c.history_max_len)
        c.history.erase(c.history.begin());
    c.history_len = static_cast<int>(c.history.size());
}

void sv_ln_refresh(client_descriptor &c, std::string &out) {
    escape(out, row(c, c.oldpos), 'A');
    out += "\r\x1b[J";
    out += c.prompt;
    out += sv_masked(text(c));
    if (c.len > 0 && column(c, c.len) == 0)
        out += "\r\n"; // a terminal waits at the margin for the next character
    c.maxrows = row(c, c.len) + 1;
    c.oldpos = c.len;
    if (c.pos != c.len)
        place_cursor(c, out);
}

void sv_ln_insert(client_descriptor &c, char byte, std::string &out) {
    if (c.len >= sv_line_max) {
        out += beep;
        return;
    }
    std::memmove(c.input + c.pos + 1, c.input + c.pos, c.len - c.pos + 1);
    c.input[c.pos] = byte;
    ++c.len;
    ++c.pos;
    if (c.pos < c.len) {
        sv_ln_refresh(c, out);
        return;
    }
    out += sv_masked(text(c)).back();
    if (column(c, c.len) == 0)
        out += "\r\n";
    c.maxrows = row(c, c.len) + 1;
    c.oldpos = c.pos;
}

void sv_ln_left(client_descriptor &c, std::string &out) {
    move_to(c, c.pos - (c.pos > 0 ? 1 : 0), out);
}
void sv_ln_right(client_descriptor &c, std::string &out) {
    move_to(c, std::min(c.pos + 1, c.len), out);
}
void sv_ln_home(client_descriptor &c, std::string &out) {
    move_to(c, 0, out);
}
void sv_ln_end(client_descriptor &c, std::string &out) {
    move_to(c, c.len, out);
}

void sv_ln_backspace(client_descriptor &c, std::string &out) {
    erase(c, c.pos - (c.pos > 0 ? 1 : 0), c.pos, out);
}

void sv_ln_delete(client_descriptor &c, std::string &out) {
    erase(c, c.pos, std::min(c.pos + 1, c.len), out);
}

void sv_ln_delete_to_end(client_descriptor &c, std::string &out) {
    erase(c, c.pos, c.len, out);
}

void sv_ln_clear(client_descriptor &c, std::string &out) {
    erase(c, 0, c.len, out);
}

void sv_ln_delete_word(client_descriptor &c, std::string &out) {
    std::size_t from = c.pos;
    while (from > 0 && c.input[from - 1] == ' ')
        --from;
    while (from > 0 && c.input[from - 1] != ' ')
        --from;
    erase(c, from, c.pos, out);
}

void sv_ln_swap(client_descriptor &c, std::string &out) {
    if (c.pos == 0 || c.pos == c.len)
        return;
    std::swap(c.input[c.pos - 1], c.input[c.pos]);
    ++c.pos;
    sv_ln_refresh(c, out);
}

void sv_ln_clear_screen(client_descriptor &c, std::string &out) {
    out += "\x1b[H\x1b[2J";
    c.oldpos = 0;
    sv_ln_refresh(c, out);
}

void sv_ln_history_back(client_descriptor &c, std::string &out) {
    history_show(c, c.history_index + 1, out);
}

void sv_ln_history_forward(client_descriptor &c, std::string &out) {
    history_show(c, c.history_index - 1, out);
}

bool sv_ln_complete(client_descriptor &c, std::string &out) {
    c.lc.clear();
    if (sv_hooks.complete)
        c.lc = sv_hooks.complete(text(c).substr(0, c.pos));
    std::erase_if(c.lc, [&](const std::string &line) { return line.size() + c.len - c.pos > sv_line_max; });
    if (c.lc.empty()) {
        out += beep;
        return false;
    }
    std::memcpy(c.saved_input, c.input, c.len + 1);
    c.saved_len = static_cast<int>(c.len);
    c.saved_pos = static_cast<int>(c.pos);
    c.completion_index = 0;
    show_candidate(c, out);
    return true;
}

void sv_ln_complete_next(client_descriptor &c, std::string &out) {
    const int places = static_cast<int>(c.lc.size()) + 1;
    c.completion_index = (c.completion_index + 1) % places;
    if (c.completion_index == places - 1)
        out += beep;
    show_candidate(c, out);
}

void sv_ln_complete_cancel(client_descriptor &c, std::string &out) {
    c.completion_index = static_cast<int>(c.lc.size());
    show_candidate(c, out);
}

} // namespace kestrel
