// server: the session table. A session is a slot; slot 0 is the terminal in direct mode.
//
// The command thread owns every field. Because worker threads may print to a session, too, output_mutex
// guards the outbox and every change of `valid`, `out` and `is_socket` (see outbox.h).
#pragma once

#include "server/script_file.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

inline constexpr int sv_max_clients = 339;
inline constexpr std::size_t sv_line_max = 1024; // characters of one command line, without its end
inline constexpr int sv_history_max = 100;
inline constexpr int sv_default_cols = 40;
inline constexpr std::string_view sv_prompt_text = "> ";

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

// Replies that are not sent yet.
struct session_outbox {
    std::string pending;
    std::size_t sent = 0;                                // this many bytes of `pending` are gone
    std::chrono::steady_clock::time_point progress_at{}; // when the peer last took something
    bool broken = false;  // the peer is gone or does not read: output is dropped, the loop closes it
    int error = 0;        // why
    bool untried = false; // holds bytes that no send was tried for
    bool counted = false; // counted among the sessions that need the loop's attention
};

struct session_fields {
    int valid = 0;
    int in = -1;  // what input is read from: socket, terminal, or the running include file
    int out = -1; // what replies are written to
    sockaddr_in addr{};
    char input[sv_line_max + 1] = {}; // the line being assembled; input[len] is always NUL
    char saved_input[sv_line_max + 1] = {};
    int saved_len = 0;
    int saved_pos = 0;
    int completion_index = 0;
    std::vector<std::string> lc; // completion candidates: whole lines
    int include_lvl = 0;
    int include_top_path = -1;
    int data_port = -1;
    int data = -1;
    int radix = 10;
    int echo_mode = 0; // 0 plain lines, 1 character mode with editing here
    input_state inp_state = input_state::First;
    negotiation_state neg_state = negotiation_state::None;
    std::string_view prompt = sv_prompt_text;
    std::size_t plen = sv_prompt_text.size();
    std::size_t pos = 0;
    std::size_t oldpos = 0;
    std::size_t len = 0;
    std::size_t cols = sv_default_cols;
    std::size_t maxrows = 0;
    int history_index = 0;
    int history_max_len = sv_history_max;
    int history_len = 0;
    std::vector<std::string> history; // oldest first; while history_open, the last is the line being edited
    bool history_open = false;
    char seq[3] = {};
    unsigned new_width = 0; // 16 bits each, from the client's window size report
    unsigned new_height = 0;
    bool is_socket = false;         // a network session: `in` and `out` are the same socket
    std::string received;           // bytes read from the top-level input and not yet taken ...
    std::size_t taken = 0;          // ... from this index on
    bool ended = false;             // direct mode: the session is over, its slot stays until the loop ends
    script_file *include = nullptr; // the running include file; null outside
    session_outbox outbox;
};

struct client_descriptor : session_fields {
    std::mutex output_mutex;
};

extern client_descriptor client[sv_max_clients];

// The session's slot; cn must be 0 .. sv_max_clients - 1.
client_descriptor *sv_get_descriptor(int cn);

// True while the session is open: a handler that may have lost it asks before it touches the slot.
inline bool sv_is_valid(int cn) {
    return cn >= 0 && cn < sv_max_clients && client[cn].valid != 0;
}

// True once the session is over, also in direct mode, where its slot stays: a script goes no further.
bool sv_is_ended(int cn);

// Fills a free slot for input and output on these descriptors and marks it valid.
void sv_fill_slot(int cn, int in, int out);

// Frees a slot without closing anything.
void sv_free_slot(int cn);

// Closes the session (direct mode: ends the server). Safe to call from inside a command of that session:
// the slot stays free until the loop's next turn.
void sv_disconnect_client(int cn);

int sv_get_include_lvl(int cn);

// Process-wide state.
extern int use_network; // 1 in network mode
extern int listen_socket;
extern int nr_conns;
extern int close_server; // ends the loop at its next turn
void sv_stop_server();

// Ends the process at once, logs and standard output flushed; other threads may be running.
[[noreturn]] void sv_die(int status);

} // namespace kestrel
