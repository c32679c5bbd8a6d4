#include "server/os_command.h"

#include "server/interrupt.h"
#include "server/output.h"
#include "support/fd.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {

namespace {

constexpr const char *output_name = ".fork_temp";
constexpr std::size_t piece_size = 256;

// What a child must not inherit: our standard input, and our way with signals.
class spawn_settings {
  public:
    spawn_settings() {
        posix_spawn_file_actions_init(&files_);
        posix_spawn_file_actions_addopen(&files_, 0, "/dev/null", O_RDONLY, 0);
        posix_spawnattr_init(&attributes_);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGINT);
        sigaddset(&defaults, SIGPIPE);
        posix_spawnattr_setsigdefault(&attributes_, &defaults);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF);
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

// Passes each interrupt on to the child until it has ended. Without a descriptor for it (an old kernel)
// waitpid alone waits, and misses an interrupt that falls between two of its calls.
void wait_passing_interrupts_on(pid_t child, int &passed_on) {
    const unique_fd ended(static_cast<int>(::syscall(SYS_pidfd_open, child, 0))); // close-on-exec by itself
    while (ended && sv_wait_fd_again(ended.get(), POLLIN, passed_on) == wait_result::interrupted) {
        passed_on = sv_quit;
        ::kill(child, SIGINT);
    }
}

// The child's exit status, 128 more than the signal that ended it. It has been told of `passed_on`
// interrupts.
int wait_for_child(pid_t child, int passed_on) {
    wait_passing_interrupts_on(child, passed_on);
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
        if (sv_quit > passed_on)
            ::kill(child, SIGINT);
        passed_on = sv_quit;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int run_shell(int cn, const std::string &command) {
    char shell[] = "sh";
    char flag[] = "-c";
    std::string text = command;
    char *arguments[] = {shell, flag, text.data(), nullptr};
    const spawn_settings settings;
    pid_t child = -1;
    const int interrupts = sv_quit; // one that comes while the child is made is its own
    const int error =
        ::posix_spawn(&child, "/bin/sh", settings.files(), settings.attributes(), arguments, environ);
    if (error == 0)
        return wait_for_child(child, interrupts);
    sv_printf(cn, "! Cannot start a shell: %s\n", std::strerror(error));
    return -1;
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
