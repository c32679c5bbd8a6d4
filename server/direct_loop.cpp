// server: direct mode. The terminal is session 0; the line-editing library reads it. A pipe instead of a
// terminal is read like any session, so that a command's `input` and the loop take from one buffer.
#include "server/activity.h"
#include "server/client_descriptor.h"
#include "server/control_socket.h"
#include "server/hooks.h"
#include "server/input.h"
#include "server/interrupt.h"
#include "server/logs.h"
#include "server/loops.h"
#include "server/options.h"
#include "server/output.h"
#include "server/timebar.h"
#include "server/wait.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <editline/readline.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr int terminal = 0; // the session
constexpr int control_d = 4;
bool line_interrupted = false;
int typed_ahead = 0; // bytes typed in the terminal's line mode, which turns ^D into NUL

// The editing library keeps the terminal right around stops and window changes with handlers of its own, but
// passes SIGINT and its like on to the whole process group: those stay ours while it waits. They are held back from
// before its handlers are in place until ours are again.
class own_signals {
  public:
    own_signals() {
        ::sigemptyset(&set_);
        for (std::size_t i = 0; i < std::size(numbers); ++i) {
            ::sigaction(numbers[i], nullptr, &actions_[i]);
            ::sigaddset(&set_, numbers[i]);
        }
    }
    void hold_back() const { ::pthread_sigmask(SIG_BLOCK, &set_, nullptr); }
    void install() const {
        for (std::size_t i = 0; i < std::size(numbers); ++i)
            ::sigaction(numbers[i], &actions_[i], nullptr);
        ::pthread_sigmask(SIG_UNBLOCK, &set_, nullptr);
    }

  private:
    static constexpr int numbers[] = {SIGINT, SIGTERM, SIGHUP};
    struct sigaction actions_[std::size(numbers)];
    sigset_t set_;
};

std::optional<own_signals> signals;

// One byte for the editing library. ^C drops the line: the library sees its end.
int read_key(std::FILE *) {
    signals->install();
    for (;;) {
        if (sv_wait_fd(STDIN_FILENO, POLLIN, -1) == wait_result::interrupted) {
            std::fputs("^C", rl_outstream);
            std::fflush(rl_outstream);
            line_interrupted = true;
            return '\n';
        }
        unsigned char byte = 0;
        const ssize_t n = ::read(STDIN_FILENO, &byte, 1);
        if (n == 1) {
            const bool ahead = typed_ahead > 0;
            typed_ahead -= ahead ? 1 : 0;
            return ahead && byte == 0 ? control_d : byte;
        }
        if (n == 0 || (errno != EINTR && errno != EAGAIN))
            return EOF;
    }
}

std::vector<std::string> candidates; // whole lines
std::size_t word_start = 0;          // of the word being completed

// The candidates' words one after the other, as the library wants them: allocated with malloc.
char *user_completion_generator(const char *, int state) {
    static std::size_t next = 0;
    if (state == 0)
        next = 0;
    while (next < candidates.size()) {
        const std::string &line = candidates[next++];
        if (line.size() > word_start)
            return ::strdup(line.c_str() + word_start);
    }
    return nullptr;
}

char **user_rl_completion(const char *text, int start, int end) {
    rl_attempted_completion_over = 1; // no file names
    if (!sv_hooks.complete || start < 0 || end < start)
        return nullptr;
    candidates = sv_hooks.complete({rl_line_buffer, static_cast<std::size_t>(end)});
    word_start = static_cast<std::size_t>(start);
    return rl_completion_matches(text, user_completion_generator);
}

// Called before the prompt is shown. The library would turn the terminal's own line mode off after it only,
// and a ^D typed in between would be lost.
int key_mode() {
    signals->hold_back();
    rl_prep_terminal(1);
    if (::ioctl(STDIN_FILENO, FIONREAD, &typed_ahead) != 0)
        typed_ahead = 0;
    return 0;
}

void prepare_terminal() {
    rl_pre_input_hook = key_mode;
    rl_getc_function = read_key;
    rl_attempted_completion_function = user_rl_completion;
    rl_readline_name = "kestrel";
    using_history();
    signals.emplace();
}

struct free_memory {
    void operator()(char *p) const { std::free(p); }
};

// One line of the terminal; false at the end of its input.
bool edit_line(std::string &line) {
    receive_buffer &received = client[terminal].received;
    sv_take(received, sv_received(received).size()); // the rest of an answer typed ahead of its question
    line_interrupted = false;
    const std::unique_ptr<char, free_memory> text(::readline("> "));
    signals->install();
    if (!text) {
        std::printf("\n");
        return false;
    }
    line = line_interrupted ? "" : text.get();
    if (!line.empty())
        ::add_history(line.c_str());
    return true;
}

// One line of a pipe; false at its end.
bool read_line(std::string &line) {
    sv_write(terminal, sv_prompt_text.data(), sv_prompt_text.size());
    line.clear();
    switch (sv_read_line(terminal, line)) {
    case read_status::done:
        return true;
    case read_status::interrupted:
        line.clear();
        return true;
    case read_status::end:
        return !line.empty(); // a last line without its end is a line
    case read_status::gone:
        return false;
    }
    return false;
}

void tell_activity(const std::string &line) try {
    activity_begin(terminal, line, activity_clock::now());
} catch (const std::bad_alloc &) { // the line runs all the same
}

void serve_lines() {
    const bool editing = ::isatty(STDIN_FILENO) != 0;
    if (editing)
        prepare_terminal();
    std::string line;
    while (!close_server) {
        sv_quit = 0;
        outbox_append(terminal, "", {.open_line = timebar_line()}); // the prompt starts on a line of its own
        if (editing)
            sv_flush_all(terminal);
        if (!(editing ? edit_line(line) : read_line(line)))
            break;
        sv_quit = 0;
        tell_activity(line);
        sv_hooks.service(terminal, line.c_str(), 1, nullptr, nullptr);
        activity_end(activity_clock::now());
    }
}

} // namespace

void direct_loop(const char *program) {
    sv_close_log(log_file); // the terminal keeps no log
    sv_close_log(vlog_file);
    sv_fill_slot(terminal, STDIN_FILENO, STDOUT_FILENO);
    sv_print_banner(program, "Directly connected to the terminal.");
    activity_open(terminal, "the terminal");
    if (!sv_options.control.empty())
        sv_control_start(0);
    sv_run_startup_file();
    if (sv_hooks.user_connect)
        sv_hooks.user_connect(terminal);
    serve_lines();
    sv_control_stop();
    if (sv_hooks.user_disconnect)
        sv_hooks.user_disconnect(terminal);
    if (sv_hooks.user_exit)
        sv_hooks.user_exit();
    sv_flush(terminal);
}

} // namespace kestrel
