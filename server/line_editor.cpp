#include "server/line_editor.h"

#include "server/hooks.h"
#include "server/logs.h"

#include <algorithm>
#include <cstring>

namespace kestrel {

namespace {

constexpr char beep = '\a';

std::string_view text(const line_edit &e) {
    return {e.input, e.len};
}

// Where a character of the line stands on the screen; the prompt stands before the line.
std::size_t row(const line_edit &e, std::size_t index) {
    return (e.plen + index) / e.cols;
}
std::size_t column(const line_edit &e, std::size_t index) {
    return (e.plen + index) % e.cols;
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

// From the shown cursor to e.pos.
void place_cursor(line_edit &e, std::string &out) {
    move_rows(out, row(e, e.oldpos), row(e, e.pos));
    out += '\r';
    escape(out, column(e, e.pos), 'C');
    e.oldpos = e.pos;
}

void move_to(line_edit &e, std::size_t pos, std::string &out) {
    if (pos == e.pos)
        return;
    e.pos = pos;
    place_cursor(e, out);
}

// Takes a text as the line, cut to what fits, the cursor at `pos`.
void set_line(line_edit &e, std::string_view line, std::size_t pos) {
    e.len = std::min(line.size(), sv_line_max);
    std::copy_n(line.begin(), e.len, e.input);
    e.input[e.len] = '\0';
    e.pos = std::min(pos, e.len);
}

void erase(line_edit &e, std::size_t from, std::size_t to, std::string &out) {
    if (from == to)
        return;
    std::memmove(e.input + from, e.input + to, e.len - to + 1);
    e.len -= to - from;
    e.pos = from;
    sv_ln_refresh(e, out);
}

// Gives the line being edited its place at the end of the history.
void open_history(line_edit &e) {
    if (e.history_open)
        return;
    e.history.emplace_back(text(e));
    e.history_len = static_cast<int>(e.history.size());
    e.history_open = true;
}

void history_show(line_edit &e, int index, std::string &out) {
    const int places = static_cast<int>(e.history.size()) + (e.history_open ? 0 : 1);
    if (index < 0 || index >= places) {
        out += beep;
        return;
    }
    open_history(e);
    const std::size_t last = e.history.size() - 1;
    if (e.history_index == 0)
        e.history[last] = text(e); // what was typed so far waits for the way back
    e.history_index = index;
    const std::string &line = e.history[last - static_cast<std::size_t>(index)];
    set_line(e, line, line.size());
    sv_ln_refresh(e, out);
}

// The candidate, or for the extra index the line as typed. What stood behind the cursor stays behind it.
void show_candidate(line_edit &e, std::string &out) {
    const std::string_view saved(e.saved_input, static_cast<std::size_t>(e.saved_len));
    const std::size_t saved_pos = static_cast<std::size_t>(e.saved_pos);
    const std::size_t index = static_cast<std::size_t>(e.completion_index);
    if (index >= e.lc.size()) {
        set_line(e, saved, saved_pos);
    } else {
        const std::string &candidate = e.lc[index];
        set_line(e, candidate + std::string(saved.substr(saved_pos)), candidate.size());
    }
    sv_ln_refresh(e, out);
}

} // namespace

void sv_ln_start(line_edit &e) {
    set_line(e, {}, 0);
    e.oldpos = 0;
    e.maxrows = 0;
    e.history_index = 0;
    e.lc.clear();
}

void sv_ln_finish(line_edit &e, std::string &out) {
    escape(out, row(e, e.len) - row(e, e.pos), 'B');
    out += "\r\n";
    if (e.history_max_len <= 0)
        return;
    open_history(e);
    e.history.back() = text(e);
    e.history_open = false;
    if (e.history_len > e.history_max_len)
        e.history.erase(e.history.begin());
    e.history_len = static_cast<int>(e.history.size());
}

void sv_ln_refresh(line_edit &e, std::string &out) {
    escape(out, row(e, e.oldpos), 'A');
    out += "\r\x1b[J";
    out += e.prompt;
    out += sv_masked(text(e));
    if (e.len > 0 && column(e, e.len) == 0)
        out += "\r\n"; // a terminal waits at the margin for the next character
    e.maxrows = row(e, e.len) + 1;
    e.oldpos = e.len;
    if (e.pos != e.len)
        place_cursor(e, out);
}

void sv_ln_insert(line_edit &e, char byte, std::string &out) {
    if (e.len >= sv_line_max) {
        out += beep;
        return;
    }
    std::memmove(e.input + e.pos + 1, e.input + e.pos, e.len - e.pos + 1);
    e.input[e.pos] = byte;
    ++e.len;
    ++e.pos;
    if (e.pos < e.len) {
        sv_ln_refresh(e, out);
        return;
    }
    out += sv_masked(text(e)).back();
    if (column(e, e.len) == 0)
        out += "\r\n";
    e.maxrows = row(e, e.len) + 1;
    e.oldpos = e.pos;
}

void sv_ln_left(line_edit &e, std::string &out) {
    move_to(e, e.pos - (e.pos > 0 ? 1 : 0), out);
}
void sv_ln_right(line_edit &e, std::string &out) {
    move_to(e, std::min(e.pos + 1, e.len), out);
}
void sv_ln_home(line_edit &e, std::string &out) {
    move_to(e, 0, out);
}
void sv_ln_end(line_edit &e, std::string &out) {
    move_to(e, e.len, out);
}

void sv_ln_backspace(line_edit &e, std::string &out) {
    erase(e, e.pos - (e.pos > 0 ? 1 : 0), e.pos, out);
}

void sv_ln_delete(line_edit &e, std::string &out) {
    erase(e, e.pos, std::min(e.pos + 1, e.len), out);
}

void sv_ln_delete_to_end(line_edit &e, std::string &out) {
    erase(e, e.pos, e.len, out);
}

void sv_ln_clear(line_edit &e, std::string &out) {
    erase(e, 0, e.len, out);
}

void sv_ln_delete_word(line_edit &e, std::string &out) {
    std::size_t from = e.pos;
    while (from > 0 && e.input[from - 1] == ' ')
        --from;
    while (from > 0 && e.input[from - 1] != ' ')
        --from;
    erase(e, from, e.pos, out);
}

void sv_ln_swap(line_edit &e, std::string &out) {
    if (e.pos == 0 || e.pos == e.len)
        return;
    std::swap(e.input[e.pos - 1], e.input[e.pos]);
    ++e.pos;
    sv_ln_refresh(e, out);
}

void sv_ln_clear_screen(line_edit &e, std::string &out) {
    out += "\x1b[H\x1b[2J";
    e.oldpos = 0;
    sv_ln_refresh(e, out);
}

void sv_ln_history_back(line_edit &e, std::string &out) {
    history_show(e, e.history_index + 1, out);
}

void sv_ln_history_forward(line_edit &e, std::string &out) {
    history_show(e, e.history_index - 1, out);
}

bool sv_ln_complete(line_edit &e, std::string &out) {
    e.lc.clear();
    if (sv_hooks.complete)
        e.lc = sv_hooks.complete(text(e).substr(0, e.pos));
    std::erase_if(e.lc, [&](const std::string &line) { return line.size() + e.len - e.pos > sv_line_max; });
    if (e.lc.empty()) {
        out += beep;
        return false;
    }
    std::memcpy(e.saved_input, e.input, e.len + 1);
    e.saved_len = static_cast<int>(e.len);
    e.saved_pos = static_cast<int>(e.pos);
    e.completion_index = 0;
    show_candidate(e, out);
    return true;
}

void sv_ln_complete_next(line_edit &e, std::string &out) {
    const int places = static_cast<int>(e.lc.size()) + 1;
    e.completion_index = (e.completion_index + 1) % places;
    if (e.completion_index == places - 1)
        out += beep;
    show_candidate(e, out);
}

void sv_ln_complete_cancel(line_edit &e, std::string &out) {
    e.completion_index = static_cast<int>(e.lc.size());
    show_candidate(e, out);
}

} // namespace kestrel
