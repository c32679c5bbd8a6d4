#include "server/os_command.h"

#include "server/interrupt.h"
#include "server/output.h"
#include "server/session.h"
#include "support/fd.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr const char *output_name = ".fork_temp";
constexpr std::size_t piece_size = 256;

constexpr pid_t unknown_group = -1; // of a shell that did not start
constexpr int stop_look_ms = 100;   // how soon a command that stopped is noticed

// In direct mode on a terminal the command has the terminal while it runs, ^C included. A shell may have taken
// it from either meanwhile, and keeps it then.
class terminal_loan {
  public:
    terminal_loan() : lent_(!use_network && ::tcgetpgrp(STDIN_FILENO) == ::getpgrp()) {}
    terminal_loan(const terminal_loan &) = delete;
    terminal_loan &operator=(const terminal_loan &) = delete;

    bool lent() const { return lent_; }
    void give(pid_t group) const { pass(::getpgrp(), group); }
    void take_back(pid_t group) const { pass(group, ::getpgrp()); }

  private:
    // Done from the background this would stop the server.
    void pass(pid_t from, pid_t to) const {
        if (!lent_ || (from != unknown_group && ::tcgetpgrp(STDIN_FILENO) != from))
            return;
        sigset_t stopping;
        sigset_t before;
        sigemptyset(&stopping);
        sigaddset(&stopping, SIGTTOU);
        pthread_sigmask(SIG_BLOCK, &stopping, &before);
        ::tcsetpgrp(STDIN_FILENO, to);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    bool lent_;
};

// What a child must not inherit: our standard input, our process group, and our way with signals.
class spawn_settings {
  public:
    explicit spawn_settings(bool lend_terminal) {
        posix_spawn_file_actions_init(&files_);
        if (lend_terminal)
            posix_spawn_file_actions_addtcsetpgrp_np(&files_, STDIN_FILENO);
        posix_spawn_file_actions_addopen(&files_, 0, "/dev/null", O_RDONLY, 0);
        posix_spawnattr_init(&attributes_);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGINT);
        sigaddset(&defaults, SIGPIPE);
        sigaddset(&defaults, SIGXFSZ);
        posix_spawnattr_setsigdefault(&attributes_, &defaults);
        posix_spawnattr_setpgroup(&attributes_, 0);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    }
    ~spawn_settings() {
        posix_spawnattr_destroy(&attributes_);
        posix_spawn_file_actions_destroy(&files_);
    }
    spawn_settings(const spawn_settings &) = delete;
    spawn_settings &operator=(const spawn_settings &) = delete;
    const posix_spawn_file_actions_t *files() const { return &files_; }
    const posix_spawnattr_t *attributes() const { return &attributes_; }

  private:
    posix_spawn_file_actions_t files_;
    posix_spawnattr_t attributes_;
};

// The first interrupt is passed on, the second ends what did not end by it, the third kills. A stopped
// command would take notice of the last only.
void interrupt_group(pid_t group, int number) {
    ::kill(-group, number == 1 ? SIGINT : number == 2 ? SIGTERM : SIGKILL);
    ::kill(-group, SIGCONT);
}

// The command has stopped: by ^Z, or by itself. With the terminal the server stops, too, and both go on
// together (nothing stops without a shell that could continue it); otherwise nobody could continue it.
void go_on_after_stop(pid_t group, const terminal_loan &terminal) {
    if (terminal.lent()) {
        terminal.take_back(group);
        ::kill(0, SIGTSTP);
        terminal.give(group);
    }
    ::kill(-group, SIGCONT);
}

// The shell's status as waitpid tells it, -1 when it cannot. It has been told of `passed_on` interrupts.
int wait_for_child(pid_t child, int passed_on, const terminal_loan &terminal) {
    const int before = passed_on;
    // Close-on-exec by itself. An old kernel has none: what ended is noticed as late as what stopped then.
    const unique_fd ended(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    for (;;) {
        int status = 0;
        const pid_t changed = ::waitpid(child, &status, WNOHANG | WUNTRACED);
        if (changed < 0 && errno != EINTR)
            return -1;
        if (changed > 0 && !WIFSTOPPED(status))
            return status;
        if (changed > 0)
            go_on_after_stop(child, terminal);
        if (sv_wait_fd_again(ended.get(), POLLIN, stop_look_ms, passed_on) == wait_result::interrupted) {
            passed_on = sv_quit;
            interrupt_group(child, passed_on - before);
        }
    }
}

// The shell's exit status, 128 more than the signal that ended it.
int exit_status(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run_shell(int cn, const std::string &command) {
    char shell[] = "sh";
    char flag[] = "-c";
    std::string text = command;
    char *arguments[] = {shell, flag, text.data(), nullptr};
    const terminal_loan terminal;
    const spawn_settings settings(terminal.lent());
    pid_t child = unknown_group;
    const int interrupts = sv_quit; // one that comes while the child is made is its own
    const int error =
        ::posix_spawn(&child, "/bin/sh", settings.files(), settings.attributes(), arguments, environ);
    if (error != 0) {
        terminal.take_back(child);
        sv_printf(cn, "! Cannot start a shell: %s\n", std::strerror(error));
        return -1;
    }
    const int status = wait_for_child(child, interrupts, terminal);
    terminal.take_back(child);
    if (status < 0)
        return -1;
    if (terminal.lent() && exit_status(status) == 128 + SIGINT)
        std::raise(SIGINT); // ^C went to the command alone, but it is the script's, too
    return exit_status(status);
}

// Sends the file's text with "# " before each line; the last one gets its line end if it has none.
void send_output(int cn, int fd) {
    char piece[piece_size];
    bool line_open = false;
    for (;;) {
        const ssize_t n = ::read(fd, piece, sizeof piece);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        std::string text;
        for (const char c : std::string_view(piece, static_cast<std::size_t>(n))) {
            if (!line_open)
                text += "# ";
            text += c;
            line_open = c != '\n';
        }
        sv_print(cn, text);
    }
    if (line_open)
        sv_print(cn, "\n");
}

} // namespace

int sv_fork_command(int cn, const char *command) {
    sv_flush_all(cn);
    ::unlink(output_name);
    const int status = run_shell(cn, std::string(command) + " >" + output_name + " 2>&1");
    const unique_fd output(::open(output_name, O_RDONLY | O_CLOEXEC));
    if (output) // none when the shell found no command, or may not write here
        send_output(cn, output.get());
    ::unlink(output_name);
    return status;
}

} // namespace kestrel
